"""Used by the programs; programs.py runs them, and they import all of this."""

from __future__ import annotations

import gc
import os
import signal
import sys
import threading
import time
import warnings
import weakref
from collections.abc import Callable, Iterable
from typing import Any

from tessaline import auth
from tests.contract.support.managers import KEY, build
from tests.contract.support.service import CHALLENGE, REGISTER, VERIFY, Service, era_of
from tests.shared.clocks import HandClock
from tests.shared.modules import StandIn
from tests.shared.threads import Worker, until, waiters

__all__ = [
    "CHALLENGE", "KEY", "LIFETIME", "REGISTER", "VERIFY", "Call", "HandClock", "Service", "StandIn", "Worker",
    "auth", "build", "era_of", "gc", "manager_with", "os", "outcome", "results", "signal", "sys", "threading",
    "time", "until", "waiters", "warnings", "weakref",
]  # fmt: skip

LIFETIME = 86400.0


def outcome(call: Callable[[], Any]) -> Any:
    """Its result, or the reason or class of its error."""
    try:
        return call()
    except auth.AuthError as error:
        return error.reason
    except Exception as error:
        return type(error).__name__


class Call:
    """One call in a separate greenlet, and its result or error."""

    def __init__(self, spawn: Callable[..., Any], call: Callable[[], Any]) -> None:
        self.done = False
        self.value: Any = None
        self.greenlet = spawn(self._run, call)

    def _run(self, call: Callable[[], Any]) -> None:
        self.value = outcome(call)
        self.done = True


def results(calls: Iterable[Call]) -> list[Any]:
    """The results, once all have ended."""
    calls = list(calls)
    until(lambda: all(call.done for call in calls), "the end of all calls", timeout=10.0)
    return [call.value for call in calls]


def manager_with(token: Any, expiry: Any, **options: Any) -> Any:
    """A manager that serves this token until its expiry, without renewal."""
    manager = build(Service(), **options)
    manager._state = "AUTHENTICATED"
    manager._token, manager._token_expiry = token, expiry
    return manager

"""Used by programs with a keeper; programs.py runs them, and they import all of this."""

from __future__ import annotations

import contextlib
import logging
import os
import signal
import sys
import threading
import time
import warnings
from collections.abc import Callable

from tessaline import auth
from tessaline.keeper import EraBoard, Keeper
from tests.contract.support.service import era_of
from tests.shared.children import begin_child, end_child, in_child
from tests.shared.clocks import HandClock
from tests.shared.threads import until

from .faults import answers, away
from .looks import Sleepless
from .service import LIFETIME, Service
from .wallets import fleet, manager

# A shell makes background jobs ignore it.
signal.signal(signal.SIGINT, signal.default_int_handler)

__all__ = [
    "LIFETIME", "EraBoard", "HandClock", "Keeper", "Service", "answers", "auth", "away", "begin_child",
    "begin_loop", "clock", "end_child", "era_of", "fleet", "in_child", "manager", "os", "reason_of",
    "service", "signal", "sys", "threading", "time", "until",
]  # fmt: skip

# Forks with other threads running are intended, and so are failures.
warnings.simplefilter("ignore", DeprecationWarning)
logging.disable(logging.CRITICAL)
auth._time = Sleepless()  # type: ignore[assignment]

clock = HandClock()
service = Service(clock)


def reason_of(call: Callable[..., object]) -> str:
    """The reason of the call's error."""
    try:
        call()
    except auth.AuthError as error:
        return error.reason
    raise AssertionError("it was not refused")


def begin_loop(call: Callable[[], object]) -> None:
    """Call it continuously on a thread, until the keeper is closed."""

    def loop() -> None:
        with contextlib.suppress(auth.AuthError):
            while True:
                call()

    threading.Thread(target=loop, daemon=True).start()

"""What programs with a keeper use; programs.py runs them, and they import all of this."""

from __future__ import annotations

import contextlib
import logging
import os
import signal
import sys
import threading
import time
import traceback
import warnings
from collections.abc import Callable

from tessaline import auth
from tessaline.keeper import EraBoard, Keeper
from tests.contract.support.clocks import HandClock
from tests.contract.support.service import era_of
from tests.shared.threads import until

from .faults import answers, away
from .looks import Sleepless
from .service import LIFETIME, Service
from .wallets import fleet, manager

__all__ = [
    "LIFETIME", "EraBoard", "HandClock", "Keeper", "Service", "answers", "auth", "away", "begin_child",
    "begin_loop", "clock", "end_child", "era_of", "fleet", "in_child", "manager", "os", "reason_of",
    "service", "signal", "sys", "threading", "time", "until",
]  # fmt: skip

DEADLINE = 15.0

# Forks in the presence of threads are meant, and so are failures.
warnings.simplefilter("ignore", DeprecationWarning)
logging.disable(logging.CRITICAL)
auth._time = Sleepless()  # type: ignore[assignment]

clock = HandClock()
service = Service(clock)


def reason_of(call: Callable[..., object]) -> str:
    """The reason with which the call is refused."""
    try:
        call()
    except auth.AuthError as error:
        return error.reason
    raise AssertionError("it was not refused")


def begin_child(body: Callable[[], object]) -> int:
    """Fork a child that does this and ends; gives back its process id."""
    pid = os.fork()
    if pid == 0:
        status = 1
        try:
            body()
            status = 0
        except BaseException:
            traceback.print_exc()
        finally:
            os._exit(status)
    return pid


def end_child(pid: int) -> None:
    """Wait for a child, which must end well."""
    limit = time.monotonic() + DEADLINE
    while (ended := os.waitpid(pid, os.WNOHANG)) == (0, 0):
        if time.monotonic() > limit:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
            raise AssertionError("the child hangs")
        time.sleep(0.002)
    assert ended[1] == 0, f"the child ended with {ended[1]}"


def in_child(body: Callable[[], object]) -> None:
    end_child(begin_child(body))


def begin_loop(call: Callable[[], object]) -> None:
    """Call it all the time on a thread, until the keeper is closed."""

    def loop() -> None:
        with contextlib.suppress(auth.AuthError):
            while True:
                call()

    threading.Thread(target=loop, daemon=True).start()

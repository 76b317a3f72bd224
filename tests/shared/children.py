"""Child processes: forked to do one thing, and awaited with a deadline."""

from __future__ import annotations

import os
import signal
import time
import traceback
from collections.abc import Callable

DEADLINE = 15.0


def begin_child(body: Callable[[], object]) -> int:
    """Fork a child that does this and exits; returns its process ID."""
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
    """Wait for a child, which must exit with status 0."""
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

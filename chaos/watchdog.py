"""Ends the process with every stack on standard error if something does not end in time."""

from __future__ import annotations

import faulthandler
import os
import threading
import time

HUNG = 70
# For hangs in which not even a Python thread can run.
_GRACE_SECONDS = 15.0
_ARMED_SECONDS = 5.0
# By number, since a captured `sys.stderr` may have no descriptor.
_STDERR = 2


class Watchdog:
    """Watches one thing at a time.

    seconds: how long it may take.
    """

    def __init__(self, seconds: float) -> None:
        self._seconds = seconds
        self._lock = threading.Lock()
        self._what = ""
        self._limit: float | None = None
        self._armed: float | None = None
        threading.Thread(target=self._watch, name="watchdog", daemon=True).start()

    def watch(self, what: str) -> None:
        """From now on it watches `what`, which is printed with the stacks if it hangs."""
        now = time.monotonic()
        with self._lock:
            self._what = what
            self._limit = now + self._seconds
        # It starts a thread each time.
        if self._armed is not None and now < self._armed + _ARMED_SECONDS:
            return
        self._armed = now
        faulthandler.dump_traceback_later(self._seconds + _GRACE_SECONDS, exit=True, file=_STDERR)

    def rest(self) -> None:
        """Nothing is running."""
        with self._lock:
            self._limit = None
        self._armed = None
        faulthandler.cancel_dump_traceback_later()

    def _watch(self) -> None:
        while True:
            time.sleep(0.25)
            with self._lock:
                hung = self._limit is not None and time.monotonic() > self._limit
                what = self._what
            if hung:
                os.write(_STDERR, f"HANG after {self._seconds:.0f} s: {what}\n".encode())
                faulthandler.dump_traceback(all_threads=True, file=_STDERR)
                os._exit(HUNG)

"""Which threads have started, and which wait for an event."""

from __future__ import annotations

import threading
import time

from tests.shared.threads import DEADLINE, Worker


class WatchedEvent(threading.Event):
    """An event that reports when a wait for it begins, and with which time-out."""

    def __init__(self) -> None:
        super().__init__()
        self._begun = threading.Semaphore(0)
        self.timeouts: list[float | None] = []

    def wait(self, timeout: float | None = None) -> bool:
        self.timeouts.append(timeout)
        self._begun.release()
        return super().wait(timeout)

    def waited_for(self) -> None:
        assert self._begun.acquire(timeout=DEADLINE), "nobody waited for the event"


class ThreadCensus:
    """Which threads have started since the census was taken."""

    def __init__(self) -> None:
        self._known = set(threading.enumerate())

    def newcomers(self) -> list[threading.Thread]:
        return [
            thread
            for thread in threading.enumerate()
            if thread not in self._known and thread.name != Worker.NAME
        ]

    def settle(self, count: int, what: str = "background threads", timeout: float = DEADLINE) -> None:
        limit = time.monotonic() + timeout
        while len(self.newcomers()) != count:
            if time.monotonic() > limit:
                raise AssertionError(f"{what}: {self.newcomers()!r}, not {count}, after {timeout} s")
            time.sleep(0.0005)

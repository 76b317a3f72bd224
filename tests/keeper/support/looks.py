"""Saves real time: the keeper polls an injected clock often, and a manager's own back-off ends at once."""

from __future__ import annotations

import contextlib
import threading
from collections.abc import Callable, Iterator
from typing import Any

from tests.contract.support.host import ShortSleeps
from tests.shared.clocks import HandClock
from tests.shared.threads import until

SCHEDULER = "tessaline-keeper"
USUAL = 0.05
QUICK = 0.002


class WatchedClock(HandClock):
    """A clock that counts how often a scheduler has read it."""

    looks = 0

    def __call__(self) -> float:
        if threading.current_thread().name == SCHEDULER:
            self.looks += 1
        return super().__call__()

    def await_looks(self) -> None:
        """Wait until the current time has been read, so that a clock jump is noticed."""
        enough = self.looks + 3
        until(lambda: self.looks >= enough, "looks at the clock")


class Sleepless(ShortSleeps):
    """A `time` for `tessaline.auth` in which a manager's back-off ends at once, without records."""

    def sleep(self, seconds: float) -> None:
        pass


@contextlib.contextmanager
def quick_looks() -> Iterator[None]:
    """The scheduler polls more often; every other wait is unchanged."""
    genuine = {name: getattr(threading.Condition, name) for name in ("wait", "wait_for")}

    def shortened(timeout: float | None) -> float | None:
        looks = timeout is not None and timeout <= USUAL
        return QUICK if looks and threading.current_thread().name == SCHEDULER else timeout

    def wait(self: threading.Condition, timeout: float | None = None) -> bool:
        return bool(genuine["wait"](self, shortened(timeout)))

    def wait_for(self: threading.Condition, told: Callable[[], Any], timeout: float | None = None) -> Any:
        return genuine["wait_for"](self, told, shortened(timeout))

    try:
        for name, value in (("wait", wait), ("wait_for", wait_for)):
            setattr(threading.Condition, name, value)
        yield
    finally:
        for name, value in genuine.items():
            setattr(threading.Condition, name, value)

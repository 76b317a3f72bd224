"""A clock that moves only when a test advances it."""

from __future__ import annotations

from collections.abc import Callable

from tessaline.testing import FakeClock


class HandClock(FakeClock):
    """The package's clock for tests, which can also raise, and counts its readings.

    before: called before each reading, on the thread that reads; what it raises is raised by the clock.
    """

    def __init__(self, now: float = 1_000_000.0) -> None:
        super().__init__()
        self.now = now
        self.error: BaseException | None = None
        self.before: Callable[[], object] | None = None
        self.readings = 0

    def __call__(self) -> float:
        self.readings += 1
        if self.before is not None:
            self.before()
        if self.error is not None:
            raise self.error
        return super().__call__()

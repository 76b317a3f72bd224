"""A clock that does as a test says whenever it is read."""

from __future__ import annotations

from collections.abc import Callable

from .looks import WatchedClock


class HookedClock(WatchedClock):
    """before: called before each reading, on the thread that reads; what it raises is raised by the clock."""

    def __init__(self, now: float = 1_000_000.0) -> None:
        super().__init__(now)
        self.before: Callable[[], object] | None = None

    def __call__(self) -> float:
        if self.before is not None:
            self.before()
        return super().__call__()

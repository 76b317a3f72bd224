"""A clock for tests."""

from __future__ import annotations


class FakeClock:
    """A clock that your test moves, for the `clock` of an `AuthManager`.

    It also measures the back-off. If the clock stands still, a manager ends its back-off after a second of
    real time; with `step` the clock moves a little at each reading, and back-off takes almost no time.

    Args:
        step: Seconds by which it moves at each reading.

    Attributes:
        now: Its time in seconds; may be set forward and back.
        step: As above; may be changed.

    Any thread may read it. A waiting keeper or manager reads it every 0.05 s of real time.
    """

    def __init__(self, step: float = 0.0) -> None:
        self.now = 1_800_000_000.0
        self.step = step

    def __call__(self) -> float:
        self.now += self.step
        return self.now

    def advance(self, seconds: float) -> None:
        """Move the clock forward by this many seconds."""
        self.now += seconds

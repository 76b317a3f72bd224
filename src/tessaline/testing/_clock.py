"""A clock for tests."""

from __future__ import annotations


class FakeClock:
    """A clock that is moved by hand, for the `clock` of an `AuthManager`.

    Back-off waits are measured with it too. A manager that finds it standing still gives such a wait up after
    a second; with `step` the clock moves a little whenever it is read, and back-off costs next to nothing.

    Args:
        step: Seconds by which it moves at each reading.

    Attributes:
        now: What it shows, in seconds; may be set, also back.
        step: As given; may be changed.

    Any thread may read it. A keeper or manager that waits for a time looks at it every 0.05 s of real time.
    """

    def __init__(self, step: float = 0.0) -> None:
        self.now = 1_800_000_000.0
        self.step = step

    def __call__(self) -> float:
        self.now += self.step
        return self.now

    def advance(self, seconds: float) -> None:
        """Move it ahead by so many seconds."""
        self.now += seconds

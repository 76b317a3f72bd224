"""Clocks as a keeper reads them, including those that jump, raise or return nonsense."""

from __future__ import annotations

import math
import time
from collections.abc import Callable
from typing import Final

SET_BACK: Final = 60.0
"""Seconds; a smaller step back is a correction that is ignored."""


class Clock:
    """A manager's clock, which may be any injected callable; reading it here never fails.

    Args:
        read: Called without arguments; returns seconds.
        is_wall_clock: Whether it is the system's wall clock.
    """

    def __init__(self, read: Callable[[], float], is_wall_clock: bool) -> None:
        self.read = read
        self.is_wall_clock = is_wall_clock
        self._failure: Exception | None = None
        self._now = 0.0
        self._looked_at: float | None = None
        self._passed = 0.0

    def now(self) -> float:
        """The current reading; the previous one if it raises or returns no finite number."""
        try:
            now = float(self.read())
            if not math.isfinite(now):
                raise ValueError(f"the clock says {now}")
        except Exception as error:
            self._failure = error
        else:
            self._now = now
        return self._now

    def take_failure(self) -> Exception | None:
        """The error of a failed reading since the last call, if any."""
        failure, self._failure = self._failure, None
        return failure

    def jump(self) -> float:
        """By how much it has been set back since the last call, as a negative number, or 0.

        For the wall clock, the elapsed real time includes suspensions of the machine. A clock set ahead is
        indistinguishable from a suspension: a token may really be that old.
        """
        now = self.now()
        passed = time.clock_gettime(time.CLOCK_BOOTTIME) if self.is_wall_clock else 0.0
        before, self._looked_at = self._looked_at, now
        jump = 0.0 if before is None else (now - before) - (passed - self._passed)
        self._passed = passed
        return jump if jump < -SET_BACK else 0.0

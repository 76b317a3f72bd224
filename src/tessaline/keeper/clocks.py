"""Clocks as a keeper reads them: those that jump, raise or talk nonsense included."""

from __future__ import annotations

import math
import time
from collections.abc import Callable
from typing import Final

SET_BACK: Final = 60.0
"""Seconds; less is a correction that no token's age depends on."""


class Clock:
    """A manager's clock, which never fails: it may be anything that a program has injected.

    Args:
        read: Without arguments, to seconds.
        is_wall_clock: Whether it is the system's, whose own pace is known.
    """

    def __init__(self, read: Callable[[], float], is_wall_clock: bool) -> None:
        self.read = read
        self.is_wall_clock = is_wall_clock
        self._failure: Exception | None = None
        self._now = 0.0
        self._looked_at: float | None = None
        self._passed = 0.0

    def now(self) -> float:
        """What it says; what it said last where it raises or says no finite number."""
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
        """Why it could not be read, if that has happened since this was asked last."""
        failure, self._failure = self._failure, None
        return failure

    def jump(self) -> float:
        """By how much it has been set back since this was asked last, as a negative number, or 0.

        The real time that has passed counts the time asleep in, where the system's clock is concerned. A
        clock set ahead cannot be told from a machine that stood still: a token may really be that old.
        """
        now = self.now()
        passed = time.clock_gettime(time.CLOCK_BOOTTIME) if self.is_wall_clock else 0.0
        before, self._looked_at = self._looked_at, now
        jump = 0.0 if before is None else (now - before) - (passed - self._passed)
        self._passed = passed
        return jump if jump < -SET_BACK else 0.0

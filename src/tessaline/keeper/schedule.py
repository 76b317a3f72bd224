"""When a wallet logs in: numbers in seconds, and no state."""

from __future__ import annotations

import random
from typing import Final

FIRST_BACK_OFF: Final = 1.0
LONGEST_BACK_OFF: Final = 300.0
RENEWAL_JITTER: Final = 0.05
"""Each way, of the time until the renewal: wallets that logged in together do not all come back together."""

RECOVERIES_APART: Final = 60.0
"""Who succeeds after failures tells of the end of an outage, in so many seconds once."""

RUNNING_OUT: Final = 3600.0
FAILURES_TO_TELL: Final = 3
"""So many failures in a row are no hiccup: before, that there is no token yet is no news."""

HANGING: Final = 600.0
"""After so long a login that has not ended is as good as one that failed."""

REFUSALS_APART: Final = 300.0
"""A token that is refused again after a login is refused for another reason: more logins would not help."""


def renewal_delay(lifetime: float, renew_at: float) -> float:
    """How long after a login to renew a token that lasts `lifetime`; before its end, whatever the jitter."""
    delay = lifetime * renew_at * (1 + random.uniform(-RENEWAL_JITTER, RENEWAL_JITTER))
    return min(delay, lifetime * 0.99)


def back_off(failures: int) -> float:
    """How long to wait after so many failures in a row, from 1: doubling from 1 s to 5 min, jittered.

    Half of it is fixed and half random ("equal jitter", Brooker: Exponential Backoff And Jitter, AWS
    Architecture Blog, 2015).
    """
    longest = min(LONGEST_BACK_OFF, FIRST_BACK_OFF * 2 ** min(failures, 20))
    return random.uniform(longest / 2, longest)

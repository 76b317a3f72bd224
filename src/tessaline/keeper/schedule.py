"""When a wallet logs in: constants in seconds, and functions without state."""

from __future__ import annotations

import random
from typing import Final

FIRST_BACK_OFF: Final = 1.0
LONGEST_BACK_OFF: Final = 300.0
RENEWAL_JITTER: Final = 0.05
"""Of the time until the renewal, in either direction, so that wallets do not all renew together."""

RECOVERIES_APART: Final = 60.0
"""Interval in which a success after failures ends the back-off of other wallets at most once."""

RUNNING_OUT: Final = 3600.0
FAILURES_TO_TELL: Final = 3
"""Consecutive failures from which a wallet that never had a token is reported."""

HANGING: Final = 600.0
"""Seconds after which a login that has not ended counts as failed."""

REFUSALS_APART: Final = 300.0
"""Interval between logins for refused tokens: if a new token is refused too, another login would not help."""


def renewal_delay(lifetime: float, renew_at: float) -> float:
    """How long after a login to renew a token; always before its expiry, whatever the jitter."""
    delay = lifetime * renew_at * (1 + random.uniform(-RENEWAL_JITTER, RENEWAL_JITTER))
    return min(delay, lifetime * 0.99)


def back_off(failures: int) -> float:
    """The back-off after so many consecutive failures, from 1: doubling from 1 s to 5 min, with jitter.

    Half of it is fixed and half random ("equal jitter", Brooker: Exponential Backoff And Jitter, AWS
    Architecture Blog, 2015).
    """
    longest = min(LONGEST_BACK_OFF, FIRST_BACK_OFF * 2 ** min(failures, 20))
    return random.uniform(longest / 2, longest)

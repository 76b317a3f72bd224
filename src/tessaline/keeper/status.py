"""What an operator sees: the state of a wallet, and what happens to it."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from dataclasses import dataclass, field
from types import MappingProxyType
from typing import Literal, get_args

WalletState = Literal[
    "closed", "stopped", "expired", "logging in", "not started", "retrying", "renewing", "good"
]
"""The worst first.

"closed": the keeper is closed. "stopped": an attempt met what is final, nothing is tried any more.
"expired": the token has expired, or is of an older era, and no other is there yet. "logging in": there was
no token yet. "not started": `start()` has not been called. "retrying": the token is good, the last attempt
to renew it has failed. "renewing": the token is good, another one is being fetched. "good": the token is
good.
"""

STATES: tuple[WalletState, ...] = get_args(WalletState)

EventKind = Literal["logged in", "renewed", "era met", "attempt failed", "running out", "stopped"]


@dataclass(frozen=True, slots=True, kw_only=True)
class WalletStatus:
    """One wallet at one moment. Times are seconds on the manager's clock: Unix time unless another was given.

    Attributes:
        address: The wallet.
        state: In words.
        expiry: When the token that is there expires; None for none.
        seconds_left: Until then; 0.0 where no token may be served.
        last_success: When the token that is there was fetched; None for never.
        last_failure: When an attempt failed last, also before the last success; None for never.
        reason: What it met, in words: the reason of an `AuthError`, the text of others; None for never.
        failures: How many attempts have failed since the last success.
        next_attempt: When the next one is planned; None where one is running or none is.
    """

    address: str
    state: WalletState
    expiry: float | None
    seconds_left: float
    last_success: float | None
    last_failure: float | None
    reason: str | None
    failures: int
    next_attempt: float | None


@dataclass(frozen=True, slots=True, kw_only=True)
class KeeperStatus:
    """A keeper at one moment: of each field of its wallets the one that needs attention most.

    Attributes:
        state: The worst.
        expiry: The earliest, of those wallets that have one.
        seconds_left: The least.
        last_success: The earliest.
        last_failure: The latest.
        reason: Of that failure.
        failures: The most.
        next_attempt: The earliest.
        wallets: Each wallet's own status by address.
    """

    state: WalletState
    expiry: float | None
    seconds_left: float
    last_success: float | None
    last_failure: float | None
    reason: str | None
    failures: int
    next_attempt: float | None
    wallets: Mapping[str, WalletStatus] = field(repr=False)


@dataclass(frozen=True, slots=True, kw_only=True)
class KeeperEvent:
    """Something that happened to a wallet. Times as in `WalletStatus`.

    Attributes:
        kind: "logged in", "renewed", "era met"; "attempt failed"; "running out" (less than an hour is left,
            or none at all, and renewing fails or hangs) or "stopped" (for good).
        level: The level of `logging` at which it is logged.
        message: The same as a sentence.
        address: The wallet.
        at: When.
        seconds_left: How long the token that is there may still be served; 0.0 for none.
        lasts: Seconds for which the new token lasts; None for kinds that tell of none.
        reason: What an attempt met, in words; None for kinds that tell of none.
        failures: How many attempts have failed in a row; with a new token, before it.
        next_attempt: When the next one is planned; None for none.
        era: The announced era that the new token has met; None for others.
    """

    kind: EventKind
    level: int
    message: str
    address: str
    at: float
    seconds_left: float
    lasts: float | None = None
    reason: str | None = None
    failures: int = 0
    next_attempt: float | None = None
    era: int | None = None


def summary(wallets: Mapping[str, WalletStatus]) -> KeeperStatus:
    """The status of a keeper of these wallets, of which there is at least one."""
    each = list(wallets.values())
    failed = max(each, key=lambda one: float("-inf") if one.last_failure is None else one.last_failure)
    return KeeperStatus(
        state=STATES[min(STATES.index(one.state) for one in each)],
        expiry=_earliest(one.expiry for one in each),
        seconds_left=min(one.seconds_left for one in each),
        last_success=_earliest(one.last_success for one in each),
        last_failure=failed.last_failure,
        reason=failed.reason,
        failures=max(one.failures for one in each),
        next_attempt=_earliest(one.next_attempt for one in each),
        wallets=MappingProxyType(dict(wallets)),
    )


def _earliest(times: Iterable[float | None]) -> float | None:
    return min((time for time in times if time is not None), default=None)

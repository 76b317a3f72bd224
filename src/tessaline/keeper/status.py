"""What an operator sees: the state of a wallet, and what happens to it."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from dataclasses import dataclass, field
from types import MappingProxyType
from typing import Literal, get_args

WalletState = Literal[
    "closed", "stopped", "expired", "logging in", "not started", "retrying", "renewing", "good"
]
"""The state of a wallet, or the worst of a keeper's wallets. Worst first:

- "closed": the keeper is closed.
- "stopped": a permanent error, no more retries.
- "expired": the token has expired, or is of an older era, and there is no new one yet.
- "logging in": the first login is running.
- "not started": `start()` has not been called.
- "retrying": the token is valid, but the last attempt to renew it has failed.
- "renewing": the token is valid, and a renewal is running.
- "good": the token is valid.
"""

STATES: tuple[WalletState, ...] = get_args(WalletState)

EventKind = Literal["logged in", "renewed", "era met", "attempt failed", "running out", "stopped"]


@dataclass(frozen=True, slots=True, kw_only=True)
class WalletStatus:
    """One wallet at one moment. Times are on the manager's clock, by default Unix timestamps.

    Attributes:
        address: The wallet.
        state: Its state.
        expiry: When the current token expires; None without a token.
        seconds_left: Remaining time of the token; 0.0 if no token may be served.
        last_success: Time of the last successful attempt; None if there was none.
        last_failure: Time of the last failed attempt, also before the last success; None if there was none.
        reason: Why it failed: the reason of an `AuthError`, the message of other errors; None as above.
        failures: Failed attempts since the last success.
        next_attempt: When the next attempt is scheduled; None if one is running or none is scheduled.
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
    """A keeper at one moment: the worst value of its wallets for each field.

    Attributes:
        state: The worst.
        expiry: The earliest, of the wallets that have a token.
        seconds_left: The smallest.
        last_success: The earliest.
        last_failure: The latest.
        reason: The reason of that failure.
        failures: The largest.
        next_attempt: The earliest.
        wallets: The status of each wallet by address.
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
        kind: "logged in", "renewed", "era met"; "attempt failed"; "running out" (an hour or less is left,
            and renewals fail or hang) or "stopped" (a permanent error).
        level: The `logging` level at which it is logged.
        message: The event as a sentence.
        address: The wallet.
        at: When it happened.
        seconds_left: Remaining time of the current token; 0.0 without a token.
        lasts: Lifetime of the new token in seconds; None for other kinds.
        reason: Why an attempt failed; None for other kinds.
        failures: Failed attempts in a row; with a new token, those before it.
        next_attempt: When the next attempt is scheduled; None without one.
        era: The announced era of the new token; None for other kinds.
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

"""The state of one wallet: when to log in next, and the outcomes of the attempts so far."""

from __future__ import annotations

import enum
import logging
from types import TracebackType
from typing import TYPE_CHECKING

from tessaline._twins import twin_of
from tessaline.auth import AuthError, NetworkError, RegistrationError
from tessaline.errors import ERA_CHANGE_PENDING, NOT_AUTHENTICATED, TOKEN_EXPIRED, is_final

from . import schedule, takeover
from .reports import detail_of, duration, words_of
from .status import EventKind, KeeperEvent, WalletState, WalletStatus

if TYPE_CHECKING:
    from tessaline._native import EraBoard, TokenCopy

    from .clocks import Clock
    from .takeover import Credentials


class _Alarm(enum.IntEnum):
    """The last alarm that was reported for the current token."""

    NONE = 0
    RUNNING_OUT = 1
    NOTHING_LEFT = 2


def _alarm_at(seconds_left: float) -> _Alarm:
    if seconds_left <= 0:
        return _Alarm.NOTHING_LEFT
    return _Alarm.RUNNING_OUT if seconds_left < schedule.RUNNING_OUT else _Alarm.NONE


class Ledger:
    """The ledger of one wallet. Called under the keeper's lock.

    Args:
        address: The wallet.
        clock: The manager's; every time here is a reading of it.
        copy: The copy of the token that is served.
        board: The announced era.
        renew_at: The part of a token's lifetime after which it is renewed.
    """

    def __init__(
        self,
        address: str,
        clock: Clock,
        copy: TokenCopy,
        board: EraBoard,
        renew_at: float,
    ) -> None:
        self.address = address
        self.due: float | None = None
        self.in_hand = False
        self.is_stopped = False
        self.failures = 0
        self.last_success: float | None = None
        self._clock = clock
        self._copy = copy
        self._board = board
        self._renew_at = renew_at
        self._again = False
        self._error: Exception | None = None
        self._traceback: TracebackType | None = None
        self._last_failure: float | None = None
        self._reason: str | None = None
        self._era_met = 0
        self._detail = ""
        self._taken_at = 0.0
        self._alarm = _Alarm.NONE
        self.is_wanted_soon = False

    def plan_now(self) -> None:
        """Schedule an attempt for now, or directly after the current one."""
        self.is_stopped = False
        self._again = self.in_hand
        self.due = self._clock.now()

    def take(self, now: float) -> bool:
        """Whether an attempt is due, which the caller must then make."""
        if self.in_hand or self.due is None or now < self.due:
            return False
        self.in_hand = True
        self._taken_at = now
        self._again = False
        return True

    def store(self, brought: Credentials, *, was_refused: bool = False) -> list[KeeperEvent]:
        """Store the result of a login.

        Args:
            brought: The new token.
            was_refused: Whether a server has refused the previous one.
        """
        now = self._clock.now()
        kind: EventKind = "logged in" if self.last_success is None else "renewed"
        failures, self.failures = self.failures, 0
        self._copy.put(brought.token, brought.expiry, brought.era)
        self.in_hand = self.is_stopped = False
        self.last_success = brought.expiry - takeover.token_lifetime()
        self._error = self._traceback = None
        self._alarm = _Alarm.NONE
        self.is_wanted_soon = self._again or brought.era < self._board.era
        self.due = now if self.is_wanted_soon else self._renewal_of(brought.expiry)
        era = None
        if brought.era >= self._board.era > self._era_met:
            era, self._era_met = brought.era, self._board.era
            kind = "era met" if kind == "renewed" else kind
        lasts = brought.expiry - now
        message = f"{kind}{'' if era is None else f', {era}'}; the token lasts {duration(lasts)}"
        if was_refused:
            message += "; a server had refused the one before"
        if failures > 0:
            message += f"; failed attempts before: {failures}"
        return [self._event(kind, logging.INFO, message, lasts=lasts, era=era, failures=failures)]

    def fail(self, error: Exception, not_before: float | None) -> list[KeeperEvent]:
        """Record a failed attempt, and schedule the next one after a transient error.

        Args:
            error: The error.
            not_before: The earliest time of a retry that the server allows, or None.
        """
        self.in_hand = False
        self.is_wanted_soon = True
        self.failures += 1
        self._error, self._traceback = error, error.__traceback__
        self._reason, self._detail = words_of(error), detail_of(error)
        now = self._clock.now()
        self._last_failure = now
        if self._is_hopeless(error):
            self.is_stopped = True
            self.due = None
            self._alarm = _alarm_at(self.seconds_left())
            message = f"stopped for good: {self._detail}; {self._what_is_left()}"
            return [self._event("stopped", logging.ERROR, message, reason=self._reason)]
        self.due = max(now + schedule.back_off(self.failures), not_before or now)
        if self._again:
            self.due = now
        message = (
            f"attempt failed, {self.failures} in a row: {self._detail}; {self._what_is_left()}; "
            f"next attempt in {self.due - now:.0f} s"
        )
        level = logging.ERROR if is_final(error) else logging.WARNING
        return [self._event("attempt failed", level, message, reason=self._reason)]

    def _is_hopeless(self, error: Exception) -> bool:
        # After a successful login, an expired certificate or a maintenance page is a transient error.
        of_the_wallet = isinstance(error, AuthError | RegistrationError)
        return is_final(error) and (of_the_wallet or self.last_success is None)

    def running_out(self, now: float) -> list[KeeperEvent]:
        """Events if renewals fail or hang and less than an hour, or nothing, is left."""
        if self.failures == 0 and not (self.in_hand and now - self._taken_at > schedule.HANGING):
            return []
        left = self.seconds_left()
        alarm = _alarm_at(left)
        is_hiccup = self._copy.token is None and 0 < self.failures < schedule.FAILURES_TO_TELL
        if alarm <= self._alarm or is_hiccup:
            return []
        self._alarm = alarm
        nothing_left = alarm is _Alarm.NOTHING_LEFT
        what = "no token is left to serve" if nothing_left else f"less than an hour is left: {duration(left)}"
        message = f"{what}; failed attempts: {self.failures}; the last met {self._detail or 'nothing yet'}"
        return [self._event("running out", logging.ERROR, message, reason=self._reason)]

    @property
    def met_an_outage(self) -> bool:
        return isinstance(self._error, NetworkError | OSError) and not self.is_stopped and not self.in_hand

    def failure(self) -> Exception:
        """Why there is no valid token."""
        if self._error is not None:
            return twin_of(self._error).with_traceback(self._traceback)
        if self.last_success is None:
            return AuthError(reason=NOT_AUTHENTICATED)
        is_old = self._copy.token is None or self._copy.era < self._board.era
        return AuthError(reason=ERA_CHANGE_PENDING if is_old else TOKEN_EXPIRED)

    def shift(self, seconds: float) -> None:
        """Adjust all times after the clock was set."""
        self._copy.shift(seconds)
        for name in ("due", "last_success", "_last_failure", "_taken_at"):
            at: float | None = getattr(self, name)
            if at is not None:
                setattr(self, name, at + seconds)

    def forget_what_ran(self) -> None:
        """In a forked child: no attempt is running, and this process gets its own renewal time."""
        if self.in_hand:
            self.in_hand = False
            self.due = self._clock.now()
        elif self.failures == 0 and self.last_success is not None and self.due is not None:
            self.due = self._renewal_of(self._copy.expiry)

    def close(self) -> None:
        self._copy.drop()
        self.due = self._error = self._traceback = None

    def _renewal_of(self, expiry: float) -> float:
        lifetime = takeover.token_lifetime()
        return expiry - lifetime + schedule.renewal_delay(lifetime, self._renew_at)

    def is_young(self, expiry: float) -> bool:
        """Whether a token with that expiry is not due for renewal yet."""
        return self._renewal_of(expiry) > self._clock.now()

    def seconds_left(self) -> float:
        """For how long the current token may still be served; 0.0 without one."""
        try:
            token = self._copy.get()
        except Exception:
            # From the clock, which reports it separately.
            token = None
        return 0.0 if token is None else max(0.0, self._copy.expiry - self._clock.now())

    def _what_is_left(self) -> str:
        left = self.seconds_left()
        return f"its token lasts another {duration(left)}" if left > 0 else "it has no token to serve"

    def status(self, state_of_keeper: WalletState | None) -> WalletStatus:
        """The wallet's status; never raises, whatever the clock does.

        Args:
            state_of_keeper: "closed" or "not started", or None.
        """
        left = self.seconds_left()
        return WalletStatus(
            address=self.address,
            state=state_of_keeper or self._state(left > 0),
            expiry=self._copy.expiry if self._copy.token is not None else None,
            seconds_left=left,
            last_success=self.last_success,
            last_failure=self._last_failure,
            reason=self._reason,
            failures=self.failures,
            next_attempt=None if self.in_hand else self.due,
        )

    def _state(self, is_good: bool) -> WalletState:
        if self.is_stopped:
            return "stopped"
        if not is_good:
            return "logging in" if self.last_success is None else "expired"
        if self.failures > 0:
            return "retrying"
        return "renewing" if self.in_hand else "good"

    def _event(
        self,
        kind: EventKind,
        level: int,
        message: str,
        *,
        lasts: float | None = None,
        reason: str | None = None,
        era: int | None = None,
        failures: int | None = None,
    ) -> KeeperEvent:
        return KeeperEvent(
            kind=kind,
            level=level,
            message=message,
            address=self.address,
            at=self._clock.now(),
            seconds_left=self.seconds_left(),
            lasts=lasts,
            reason=reason,
            failures=self.failures if failures is None else failures,
            next_attempt=self.due,
            era=era,
        )

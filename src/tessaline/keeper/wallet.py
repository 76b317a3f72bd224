"""One wallet of a keeper, as a program uses it."""

from __future__ import annotations

import math
import threading
import time
from collections.abc import Callable
from typing import TYPE_CHECKING, final

from tessaline._native import Serving, TokenCopy, own_get_token
from tessaline.auth import AuthError, AuthManager
from tessaline.errors import NOT_AUTHENTICATED

from . import takeover
from .ledger import Ledger
from .reports import closed_error, with_note
from .schedule import REFUSALS_APART
from .status import KeeperEvent, WalletState, WalletStatus

if TYPE_CHECKING:
    from .clocks import Clock
    from .retry_after import RetryAfterTransport
    from .scheduler import Scheduler
    from .takeover import Credentials

# Real seconds.
REPORT_TIMEOUT = 10.0
# A signal handler on this thread may close the keeper between the check and the wait, so waits are short.
LONGEST_WAIT = 1.0


@final
@own_get_token
class Wallet(Serving):
    """One wallet of a keeper: `keeper[address]`. A keeper of one wallet has the same methods.

    All methods may be called from any thread, and in a forked child.
    """

    def __init__(self, manager: AuthManager, clock: Clock, scheduler: Scheduler, renew_at: float) -> None:
        self.manager = manager
        self.clock = clock
        self._scheduler = scheduler
        self._served = TokenCopy(clock.read, scheduler.board)
        self._copy = self._served
        address = manager.get_wallet_address()
        self.ledger = Ledger(address, clock, self._served, scheduler.board, renew_at)
        self._changed = threading.Condition(scheduler.lock)
        self._transport: RetryAfterTransport | None = None
        self._must_log_in = False
        self._refused_at: float | None = None
        self._is_reporting = False
        self._is_resuming = False

    @property
    def address(self) -> str:
        """The wallet's address: "0x" and 40 lowercase digits."""
        return self.ledger.address

    def __repr__(self) -> str:
        return f"<Wallet {self.address}: {self.status().state}>"

    def status(self) -> WalletStatus:
        """Return the wallet's status. Never raises; waits only for a lock that is held briefly."""
        state: WalletState | None = None
        with self._scheduler.lock:
            if self._scheduler.is_closed:
                state = "closed"
            elif self._transport is None:
                state = "not started"
            return self.ledger.status(state)

    def report_refused(self, token: str) -> bool:
        """Report that a server has answered 401 to this token.

        If it is the current token, the wallet logs in again: once for all threads that report it, and at
        most once in five minutes. The copy is served meanwhile. Waits for that login, at most 10 s of real
        time; in an event loop use `tessaline.aio`.

        Args:
            token: The token that was sent, without "Bearer".

        Returns:
            Whether a new token is available, so that repeating the request makes sense.
        """
        with self._scheduler.lock:
            if self.holds(token) and self._may_log_in_for_a_refusal():
                self._refused_at = self.clock.now()
                self._must_log_in = True
                # A running login is enough.
                if not self.ledger.in_hand:
                    self.ledger.plan_now()
                self._scheduler.wake()
            if not self._scheduler.is_on_own_thread():
                self._wait_until(
                    lambda: not self._must_log_in or self.ledger.failures > 0 or self._served.token != token,
                    REPORT_TIMEOUT,
                )
            return self._served.token not in (None, token)

    def holds(self, token: str) -> bool:
        """Whether that is the wallet's current token, valid or not."""
        return self._served.token == token

    def _may_log_in_for_a_refusal(self) -> bool:
        # A wallet whose attempts fail is being retried anyway, and a stopped one must not be.
        if self._transport is None or self._scheduler.is_closed or self._must_log_in:
            return False
        if self.ledger.is_stopped or self.ledger.failures > 0:
            return False
        return self._refused_at is None or abs(self.clock.now() - self._refused_at) >= REFUSALS_APART

    def _wait_for_token(self, timeout: float | None) -> str:
        """`get_token()` without a valid copy."""
        if timeout is not None and math.isnan(timeout):
            raise ValueError("timeout must be a number of seconds, or None")
        if self._scheduler.is_on_own_thread():
            # It would deadlock.
            timeout = 0.0
        with self._scheduler.lock:
            # The machine may have been suspended, or another process has announced an era.
            self._scheduler.wake()
            outcome = self._wait_until(lambda: self._served.get() or self._is_hopeless(), timeout)
            if isinstance(outcome, str):
                return outcome
            raise self._refusal()

    def _is_hopeless(self) -> bool:
        return self._transport is None or self.ledger.is_stopped

    def _refusal(self) -> Exception:
        if self._scheduler.is_closed:
            return closed_error()
        if self._transport is None:
            return with_note(AuthError(reason=NOT_AUTHENTICATED), "call start() of the keeper first")
        return self.ledger.failure()

    def _wait_until[Outcome](self, look: Callable[[], Outcome], timeout: float | None) -> Outcome:
        """Wait until `look` returns something, the keeper closes or the time is over; return the result."""
        deadline = math.inf if timeout is None else time.monotonic() + timeout
        while not ((outcome := look()) or self._scheduler.is_closed):
            left = deadline - time.monotonic()
            if left <= 0:
                break
            self._changed.wait(min(left, LONGEST_WAIT))
        return outcome

    # For the keeper. Under the scheduler's lock, except `attempt`.

    def begin(self) -> list[KeeperEvent]:
        """Take over the manager, with its token if it has one; or retry a stopped wallet."""
        if self._transport is not None:
            if self.ledger.is_stopped:
                self.ledger.plan_now()
                self._is_resuming = True
            return []
        transport = takeover.take_over(self.manager)
        held = takeover.credentials_of(self.manager)
        told: list[KeeperEvent] = []
        if held is not None and self.clock.now() < held.expiry:
            told = self.ledger.store(held)
        else:
            self.ledger.plan_now()
        # Last: after an interruption above, the next call starts again.
        self._transport = transport
        return told

    def await_first_token(self) -> Exception | None:
        """Wait until the wallet has a token or has stopped; return the error that stopped it, or None."""
        if self._scheduler.is_on_own_thread():
            return None
        self._wait_until(lambda: not self._is_reporting and self._is_settled(), None)
        return self.ledger.failure() if self.ledger.is_stopped else None

    def _is_settled(self) -> bool:
        return self.ledger.is_stopped or (self._served.get() is not None and not self._is_resuming)

    def shift(self, seconds: float) -> None:
        """Adjust all times after the clock was set."""
        self.ledger.shift(seconds)
        if self._refused_at is not None:
            self._refused_at += seconds

    def require_era(self, era: int) -> None:
        """Drop a copy of an older era, and schedule a login."""
        if self._served.token is not None and self._served.era >= era:
            return
        self._served.drop()
        if self._transport is not None and not self.ledger.is_stopped:
            self.ledger.plan_now()

    def attempt(self) -> list[KeeperEvent]:
        """Log in on the calling thread; return the events to report. Called without the lock."""
        era = self._scheduler.board.era
        try:
            held = None if self._must_log_in else self._renewed_by_another(era)
            brought = held or takeover.log_in(self.manager, era)
            with self._scheduler.lock:
                return self._settle_success(brought)
        except Exception as error:
            with self._scheduler.lock:
                return self.settle_failure(error)
        except BaseException as error:
            with self._scheduler.lock:
                self.settle_failure(RuntimeError(f"the login was ended by {type(error).__name__}"))
            raise

    def _settle_success(self, brought: Credentials) -> list[KeeperEvent]:
        if self._scheduler.is_closed:
            return []
        # Before storing times: the clock may have been set back during the login.
        self._scheduler.look_at_clock(self.clock)
        told = self.ledger.store(brought, was_refused=self._must_log_in)
        self._must_log_in = False
        self._is_reporting = True
        self._is_resuming = False
        self.notify()
        return told

    def settle_failure(self, error: Exception) -> list[KeeperEvent]:
        """Record that an attempt has failed, or could not be made."""
        if self._scheduler.is_closed:
            return []
        self._is_reporting = True
        told = self.ledger.fail(error, self._transport.not_before if self._transport else None)
        self.notify()
        return told

    def _renewed_by_another(self, era: int) -> Credentials | None:
        """A newer token that another caller made the manager fetch, if it is young enough."""
        held = takeover.credentials_of(self.manager)
        if held is None or held.token == self._served.token or held.era < era:
            return None
        return held if self.ledger.is_young(held.expiry) else None

    def try_again(self) -> None:
        """Skip the rest of a back-off, unless the server has asked for it."""
        if self._transport is not None and self._transport.not_before is None and self.ledger.met_an_outage:
            self.ledger.plan_now()

    def has_reported(self) -> None:
        self._is_reporting = False
        self.notify()

    def notify(self) -> None:
        self._changed.notify_all()

    def close(self) -> None:
        self.ledger.close()
        self.notify()

    def forget_what_ran(self, *, is_lock_new: bool) -> None:
        """In a forked child: neither the threads that log in nor those that wait exist there."""
        if is_lock_new:
            self._changed = threading.Condition(self._scheduler.lock)
        self._is_reporting = False
        if self._transport is not None:
            self.ledger.forget_what_ran()

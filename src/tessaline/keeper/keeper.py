"""The keeper itself: one wallet or a thousand behind one object."""

from __future__ import annotations

import operator
import sys
from collections.abc import Callable, Iterable, Iterator
from types import TracebackType
from typing import Self

from tessaline._native import EraBoard, Serving, own_get_token
from tessaline.auth import AuthManager

from . import takeover
from .clocks import Clock
from .reports import Reports, closed_error, with_note
from .scheduler import Scheduler
from .status import KeeperEvent, KeeperStatus, summary
from .wallet import Wallet


@own_get_token
class Keeper(Serving):
    """Keeps the tokens of wallets valid until it is closed, through all transient errors.

    It serves its own copies, so nobody waits while a copy is valid, whatever server and manager do. It
    renews each token at `renew_at` of its lifetime, with a jitter of 5 % each way. After a transient error it
    retries with jittered back-off from 1 s to 5 min, without a limit. A permanent error stops the wallet
    concerned and is logged as an error. One background thread schedules; up to `at_once` threads log in.
    Leaving it as a context manager closes it.

    Args:
        managers: One manager, or several of different wallets. From `start()` on the keeper renews them, and
            `close()` closes them. If an iterable raises, the managers before the error are closed.
        at_once: How many wallets may log in at the same time.
        renew_at: The part of a token's lifetime after which it is renewed, between 0 and 1.
        on_event: Called with each `KeeperEvent`, outside every lock, on the thread that caused it; it should
            return soon. If it raises, that is logged once.
        era_board: The board of announced eras. Create it before a fork and pass it to the keepers of all
            children: an era that is announced in one process reaches all. By default a keeper has its own
            board, which the children of a later fork share.

    Raises:
        ValueError: No manager, two managers of one wallet, or a number out of range.
        TypeError: An argument of the wrong type.

    All methods may be called from any thread, and in a forked child, where the keeper continues
    independently. Times are read from the managers' clocks.
    """

    def __init__(
        self,
        managers: AuthManager | Iterable[AuthManager],
        *,
        at_once: int = 8,
        renew_at: float = 0.6,
        on_event: Callable[[KeeperEvent], object] | None = None,
        era_board: EraBoard | None = None,
    ) -> None:
        _check(at_once, renew_at, on_event)
        self._board = EraBoard() if era_board is None else era_board
        self._reports = Reports(on_event)
        self._scheduler = Scheduler(self._board, at_once, self._reports, is_shared=era_board is not None)
        self._wallets: dict[str, Wallet] = {}
        clocks: dict[int, Clock] = {}
        try:
            for manager in [managers] if isinstance(managers, AuthManager) else managers:
                self._add(manager, renew_at, clocks)
            if not self._wallets:
                raise ValueError("a keeper needs a manager")
        except BaseException:
            for wallet in self._wallets.values():
                wallet.manager.close()
            raise
        if len(self._wallets) == 1:
            self._copy = self._only()._copy

    def _add(self, manager: object, renew_at: float, clocks: dict[int, Clock]) -> None:
        if not isinstance(manager, AuthManager):
            raise TypeError(f"a keeper holds AuthManagers, not {type(manager).__name__}")
        read = takeover.clock_of(manager)
        clock = clocks.setdefault(id(read), Clock(read, takeover.has_wall_clock(manager)))
        wallet = Wallet(manager, clock, self._scheduler, renew_at)
        if wallet.address in self._wallets:
            raise ValueError(f"two managers are of the wallet {wallet.address}")
        self._wallets[wallet.address] = wallet
        self._scheduler.add(wallet)

    def start(self, wait: bool = True) -> None:
        """Log every wallet in, and keep it logged in.

        A manager that is already logged in keeps its token. A second call retries stopped wallets once.

        Args:
            wait: Whether to return only when each wallet has a token or has stopped, however long the
                server is down; otherwise the first attempts run in the background.

        Raises:
            AuthError, RegistrationError, ssl.SSLError and others: The permanent error that has stopped the
                wallet; a note names the wallet. Also "manager_closed".
            ExceptionGroup: Several wallets have stopped, each with its own error; `except*` handles
                one and several alike.
            RuntimeError: No thread could be started.
        """
        with self._scheduler.lock:
            if self._scheduler.is_closed:
                raise closed_error()
            events = [event for wallet in self._wallets.values() for event in wallet.begin()]
            self._scheduler.start()
        self._reports.send(events)
        if wait:
            with self._scheduler.lock:
                self._await_tokens()

    def _await_tokens(self) -> None:
        failures: list[Exception] = []
        for wallet in self._wallets.values():
            failure = wallet.await_first_token()
            if self._scheduler.is_closed:
                raise closed_error()
            if failure is not None:
                failures.append(with_note(failure, f"It has stopped the wallet {wallet.address}."))
        if len(failures) > 1:
            raise ExceptionGroup(f"{len(failures)} of {len(self)} wallets have stopped", failures)
        if failures:
            raise failures[0]

    def _wait_for_token(self, timeout: float | None) -> str:
        if len(self._wallets) > 1:
            raise ValueError("this keeper has several wallets: keeper[address].get_token()")
        return self._only().get_token(timeout)

    def _only(self) -> Wallet:
        return next(iter(self._wallets.values()))

    def notify_era_change(self, new_era_number: int) -> None:
        """Require tokens of this era, for all wallets and in all processes that share the keeper's board.

        After the call no copy of an older era is served. The wallets log in again, `at_once` at a
        time, until each has a token of the era. A lower number changes nothing; before `start()` the number
        is stored. Returns at once.

        Args:
            new_era_number: Lowest era, from 1, that tokens must carry.

        Raises:
            ValueError: The number is not positive, or is too large.
            TypeError: It is not an integer.
            AuthError: "manager_closed".
        """
        era = operator.index(new_era_number)
        with self._scheduler.lock:
            # An invalid number raises its own error even if the keeper is closed.
            if era > 0 and self._scheduler.is_closed:
                raise closed_error()
            self._board.announce(era)
            self._scheduler.look_at_board()

    def report_refused(self, token: str) -> bool:
        """Report that a server has answered 401 to this token, as `Wallet.report_refused()` does.

        Args:
            token: The token that was sent, of any wallet.

        Returns:
            Whether a new token is available, so that repeating the request makes sense. With several wallets,
            False for a token that is no longer the current one of any of them.
        """
        if len(self._wallets) == 1:
            return self._only().report_refused(token)
        for wallet in self._wallets.values():
            if wallet.holds(token):
                return wallet.report_refused(token)
        return False

    def status(self) -> KeeperStatus:
        """Return the status of the keeper and of each wallet. Never raises."""
        return summary({address: wallet.status() for address, wallet in self._wallets.items()})

    def __getitem__(self, address: str) -> Wallet:
        return self._wallets[address.lower()]

    def __contains__(self, address: object) -> bool:
        return isinstance(address, str) and address.lower() in self._wallets

    def __len__(self) -> int:
        return len(self._wallets)

    def __iter__(self) -> Iterator[str]:
        return iter(self._wallets)

    def __repr__(self) -> str:
        return f"<Keeper of {len(self)}: {self.status().state}>"

    def close(self) -> None:
        """Wake all waiting threads with "manager_closed", close every manager, and drop the tokens.

        May be called again, from any thread and from `on_event`. Waits at most a second for the keeper's
        threads; a thread in the middle of a request ends after it.
        """
        if not sys.is_finalizing():
            with self._scheduler.lock:
                if self._scheduler.is_closed:
                    return
                self._scheduler.close()
        interruption: BaseException | None = None
        for wallet in self._wallets.values():
            try:
                wallet.manager.close()
            except BaseException as error:
                # The other keys must be wiped nevertheless.
                interruption = error
        if interruption is not None:
            raise interruption
        if not sys.is_finalizing():
            self._scheduler.join()

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()


def _check(at_once: object, renew_at: float, on_event: object) -> None:
    if not isinstance(at_once, int):
        raise TypeError(f"at_once must be an int, not {type(at_once).__name__}")
    if at_once < 1:
        raise ValueError(f"at_once must be at least 1, got {at_once}")
    if not 0 < renew_at < 1:
        raise ValueError(f"renew_at must be between 0 and 1, got {renew_at}")
    if on_event is not None and not callable(on_event):
        raise TypeError(f"on_event must be callable, not {type(on_event).__name__}")

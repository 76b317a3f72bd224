"""The keeper itself: one wallet or a thousand, as one thing to start, ask, tell and close."""

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
    """Keeps the tokens of wallets good through anything that is transient, until it is closed.

    It serves copies of its own, so while one is good nobody waits, whatever server and manager do. It
    renews each at `renew_at` of its lifetime, jittered by 5 % each way, and tries again after a transient
    error with jittered back-off from 1 s to 5 min, without end. An error that a further attempt would meet
    again stops the wallet concerned, and is logged as an error. One thread plans; as many as are busy log
    in. Leaving it as a context manager closes it.

    Args:
        managers: One manager, or several of different wallets. From `start()` on the keeper renews them, and
            `close()` closes them. If one of an iterable cannot be made, those before it are closed.
        at_once: How many wallets may log in at the same time.
        renew_at: The part of a token's lifetime after which it is renewed, between 0 and 1.
        on_event: Called with each `KeeperEvent`, outside every lock, on the thread that made it happen,
            which it should not hold up. What it raises is logged once.
        era_board: Where announced eras stand; made before a fork and given to the keepers of all children,
            an era that is announced in one reaches all. A keeper that is given none has one of its own,
            which the children of a later fork share.

    Raises:
        ValueError: No manager, two of one wallet, or a number out of its range.
        TypeError: An argument of another type.

    All methods may be called from any thread, and in a forked child, where the keeper goes on by itself.
    Times are read from the managers' clocks.
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
        """Log every wallet in, and keep them so.

        A manager that is logged in already is taken as it is. Called again, it tries wallets that have
        stopped once more.

        Args:
            wait: Whether to return only when each wallet has a token or has stopped, however long the
                server is away; else the first attempts are made in the background.

        Raises:
            AuthError, RegistrationError, ssl.SSLError and others: What has stopped the wallet; a note names
                it. Also "manager_closed".
            ExceptionGroup: Several wallets have stopped, each with an error of its own; `except*` handles
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
        """Require tokens of this era, of all wallets and in all processes that share the keeper's board.

        Once it has returned no copy of an older era is served. The wallets log in anew, `at_once` at a
        time, until the era is met. A lower number changes nothing; before `start()` it is remembered.
        Returns at once.

        Args:
            new_era_number: Lowest era, from 1, that tokens must carry.

        Raises:
            ValueError: The number is not positive, or is as large as no era can be.
            TypeError: It is no whole number.
            AuthError: "manager_closed".
        """
        era = operator.index(new_era_number)
        with self._scheduler.lock:
            # A number that is none is refused by a closed keeper as well.
            if era > 0 and self._scheduler.is_closed:
                raise closed_error()
            self._board.announce(era)
            self._scheduler.look_at_board()

    def report_refused(self, token: str) -> bool:
        """Tell that a server has answered 401 to this token, as `Wallet.report_refused()` does.

        Args:
            token: As it was sent, of whichever wallet.

        Returns:
            Whether another token is current now, so that it is worth repeating the request. False for a
            token that is of no wallet here any more, where there are several.
        """
        if len(self._wallets) == 1:
            return self._only().report_refused(token)
        for wallet in self._wallets.values():
            if wallet.holds(token):
                return wallet.report_refused(token)
        return False

    def status(self) -> KeeperStatus:
        """Return how the keeper stands, and each of its wallets. Never raises."""
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
        """Wake everybody who waits, with "manager_closed"; close every manager, and forget the tokens.

        May be called again, from any thread and from `on_event`. Waits a second at most for the keeper's
        threads; one that is in the midst of a request ends with it.
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
                # The other keys are to be wiped as well.
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

"""The keeper's threads: one that schedules, and as many that log in as are needed."""

from __future__ import annotations

import contextlib
import itertools
import threading
import time
from collections import deque
from collections.abc import Iterator
from typing import TYPE_CHECKING

from . import forks, takeover
from .reports import Reports
from .schedule import RECOVERIES_APART

if TYPE_CHECKING:
    from tessaline._native import EraBoard

    from .clocks import Clock
    from .status import KeeperEvent
    from .wallet import Wallet

# Real seconds.
_LOOK = 30.0
_LOOK_AT_INJECTED_CLOCK = 0.05
_LOOK_AT_SHARED_BOARD = 1.0
_JOIN = 1.0
_PAUSE_AFTER_FAILURE = 1.0


class Scheduler:
    """Schedules the logins of a keeper's wallets, at most `at_once` at a time, in the order in which they
    are due.

    `lock` guards all state of the keeper. It is held briefly: never across a login, a wait or the program's
    `on_event`. It is reentrant, because a signal handler or a finalizer may take it on the owner's thread.
    """

    def __init__(self, board: EraBoard, at_once: int, reports: Reports, *, is_shared: bool) -> None:
        self.board = board
        self.lock = threading.RLock()
        self.is_closed = False
        self._is_shared = is_shared
        self._at_once = at_once
        self._reports = reports
        self._wallets: dict[Clock, list[Wallet]] = {}
        self._woken = threading.Condition(self.lock)
        self._is_woken = False
        self._is_started = False
        self._era_seen = 0
        self._recovered_at = float("-inf")
        self._ready: deque[Wallet] = deque()
        self._thread: threading.Thread | None = None
        self._workers: set[threading.Thread] = set()
        forks.watch(self)

    # Under the lock, or before another thread can access it.

    def add(self, wallet: Wallet) -> None:
        self._wallets.setdefault(wallet.clock, []).append(wallet)

    def start(self) -> None:
        """Start the scheduling thread, or wake it.

        Raises:
            RuntimeError: The thread could not be started.
        """
        self._is_started = True
        self._is_woken = True
        self._woken.notify_all()
        if self._thread is not None and self._thread.is_alive():
            return
        self._thread = threading.Thread(target=self._run, name="tessaline-keeper", daemon=True)
        self._thread.start()

    def wake(self) -> None:
        """Wake the scheduling thread; start it if that has failed before."""
        self._is_woken = True
        self._woken.notify_all()
        if self._is_started and not self.is_closed and (self._thread is None or not self._thread.is_alive()):
            with contextlib.suppress(RuntimeError, MemoryError):
                self.start()

    def look_at_board(self) -> None:
        """Require an era that was announced, here or in another process, of every wallet."""
        era = self.board.era
        if era <= self._era_seen:
            return
        for wallet in self._all():
            wallet.require_era(era)
        # Last: after an interruption above, the next call does the rest.
        self._era_seen = era
        self.wake()

    def look_at_clock(self, clock: Clock) -> None:
        """Adjust all times of a clock that was set back."""
        jump = clock.jump()
        if jump:
            for wallet in self._wallets[clock]:
                wallet.shift(jump)

    def is_on_own_thread(self) -> bool:
        here = threading.current_thread()
        return here is self._thread or here in self._workers

    def _all(self) -> Iterator[Wallet]:
        return itertools.chain.from_iterable(self._wallets.values())

    def close(self) -> None:
        """Wake all waiting threads; running logins end by themselves."""
        self.is_closed = True
        self._ready.clear()
        for wallet in self._all():
            wallet.close()
        self.wake()

    # Without the lock.

    def join(self) -> None:
        """Wait at most a second for the threads to end."""
        with self.lock:
            threads = [self._thread, *self._workers]
        for thread in threads:
            if thread is not None and thread is not threading.current_thread() and thread.is_alive():
                thread.join(_JOIN / len(threads))

    def _run(self) -> None:
        while True:
            try:
                return self._look()
            except BaseException as error:
                # Whatever it is: without this thread, no wallet would be renewed.
                self._reports.step_failed(error)
                time.sleep(_PAUSE_AFTER_FAILURE)

    def _look(self) -> None:
        while True:
            events: list[KeeperEvent] = []
            with self.lock:
                if self.is_closed or self._thread is not threading.current_thread():
                    return
                self.look_at_board()
                self._is_woken = False
                wait = self._look_at_wallets(events)
                self._start_workers(events)
                failures = [failure for clock in self._wallets if (failure := clock.take_failure())]
            for failure in failures:
                self._reports.clock_failed(failure)
            self._reports.send(events)
            with self.lock:
                self._woken.wait_for(lambda: self._is_woken, wait)

    def _look_at_wallets(self, events: list[KeeperEvent]) -> float:
        """Queue the wallets that are due; return the real seconds until the next check."""
        wait = _LOOK_AT_SHARED_BOARD if self._is_shared else _LOOK
        for clock, wallets in self._wallets.items():
            self.look_at_clock(clock)
            now = clock.now()
            if not clock.is_wall_clock:
                wait = min(wait, _LOOK_AT_INJECTED_CLOCK)
            for wallet in wallets:
                ledger = wallet.ledger
                if ledger.take(now):
                    self._ready.append(wallet)
                elif ledger.due is not None and not ledger.in_hand:
                    wait = min(wait, ledger.due - now)
                events += ledger.running_out(now)
        return max(0.0, wait)

    def _start_workers(self, events: list[KeeperEvent]) -> None:
        for _ in range(min(len(self._ready), self._at_once - len(self._workers))):
            worker = threading.Thread(target=self._work, name="tessaline-login", daemon=True)
            self._workers.add(worker)
            try:
                worker.start()
            except (RuntimeError, MemoryError) as error:
                self._workers.discard(worker)
                if not self._workers:
                    events += self._ready.popleft().settle_failure(error)
                return

    def _work(self) -> None:
        try:
            while (wallet := self._next()) is not None:
                self._attempt(wallet)
        finally:
            with self.lock:
                self._workers.discard(threading.current_thread())
                self.wake()

    def _next(self) -> Wallet | None:
        with self.lock:
            return self._ready.popleft() if self._ready and not self.is_closed else None

    def _attempt(self, wallet: Wallet) -> None:
        was_failing = wallet.ledger.failures > 0
        try:
            self._reports.send(wallet.attempt())
        finally:
            with self.lock:
                wallet.has_reported()
                if was_failing and wallet.ledger.failures == 0:
                    self._bring_forward(wallet)
                if wallet.ledger.is_wanted_soon:
                    self.wake()

    def _bring_forward(self, recovered: Wallet) -> None:
        """An outage is over: end the back-off of all wallets at that server."""
        now = recovered.clock.now()
        if abs(now - self._recovered_at) < RECOVERIES_APART:
            return
        self._recovered_at = now
        server = takeover.server_of(recovered.manager)
        for wallet in self._all():
            if takeover.server_of(wallet.manager) == server:
                wallet.try_again()
        self.wake()

    # Forks.

    def after_fork_in_parent(self) -> None:
        """Poll the board more often: the child may announce an era on it."""
        self._is_shared = True
        self.wake()

    def after_fork_in_child(self, *, is_lock_held: bool) -> None:
        """Continue without the parent's threads.

        Args:
            is_lock_held: Whether this thread holds the lock; otherwise a thread of the parent may hold it.
        """
        if not is_lock_held:
            self.lock = threading.RLock()
            self._woken = threading.Condition(self.lock)
            self.lock.acquire()
        try:
            self._ready.clear()
            self._workers = set()
            self._thread = None
            self._is_shared = True
            for wallet in self._all():
                wallet.forget_what_ran(is_lock_new=not is_lock_held)
            self.wake()
        finally:
            self.lock.release()

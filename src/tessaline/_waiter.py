"""One thread that makes blocking calls for the tasks of any number of event loops."""

from __future__ import annotations

import os
import threading
import weakref
from collections.abc import Callable, Hashable, Sequence
from types import TracebackType
from typing import Any

from tessaline._signals import new_signal, wake_all
from tessaline._twins import twin_of


class _Ticket:
    """A waiting task, and its result."""

    __slots__ = ("error", "signal", "trace", "value")

    def __init__(self) -> None:
        self.signal = new_signal()
        self.value: Any = None
        self.error: BaseException | None = None
        self.trace: TracebackType | None = None

    def redeem(self) -> Any:
        if self.error is None:
            return self.value
        try:
            # An error that cannot be copied would accumulate the tracebacks of all tasks.
            raise self.error.with_traceback(self.trace)
        finally:
            self.error = self.trace = None


class _Call:
    """A pending or running call, and the tasks that wait for it."""

    __slots__ = ("key", "tickets", "work")

    def __init__(self, key: Hashable, work: Callable[[], object]) -> None:
        self.key = key
        self.work = work
        # A task removes its own without the lock, since the garbage collector may end the task at any time
        # and on any thread. Single operations on a dict are atomic.
        self.tickets: dict[_Ticket, None] = {}

    def take(self) -> list[_Ticket]:
        taken = list(self.tickets)
        self.tickets.clear()
        return taken


class Waiter:
    """Makes the calls one after another on a daemon thread, which ends when there are no more.

    Usable from any thread, and in a forked child, which does not share its parent's calls.
    """

    def __init__(self) -> None:
        self._begin()
        _living.add(self)

    def _begin(self) -> None:
        self._lock = threading.Lock()
        self._refusal: Callable[[], BaseException] | None = None
        self._coming: dict[Hashable, _Call] = {}
        self._running: _Call | None = None
        self._thread: threading.Thread | None = None

    def begin_in_child(self) -> None:
        refusal = self._refusal
        self._begin()
        self._refusal = refusal

    async def outcome_of(self, key: Hashable, work: Callable[[], object]) -> Any:
        """The result or error of a call that begins later than this one; tasks with the same key share it.

        Tasks that arrive during a call share its error, so that none waits for two calls.

        Raises:
            RuntimeError: No event loop runs here, or no thread could be started.
        """
        ticket = _Ticket()
        call = self._enqueue(ticket, key, work)
        try:
            await ticket.signal.wait()
        finally:
            call.tickets.pop(ticket, None)
        return ticket.redeem()

    def close(self, refusal: Callable[[], BaseException]) -> None:
        """Raise this error in all tasks that wait, now or later. Does not block."""
        self._refusal = refusal
        self._fail_all(refusal())

    def _enqueue(self, ticket: _Ticket, key: Hashable, work: Callable[[], object]) -> _Call:
        with self._lock:
            if self._refusal is not None:
                raise self._refusal()
            # Not the running call: its result may be older than what this task already knows.
            call = self._coming.get(key)
            if call is None:
                call = self._coming[key] = _Call(key, work)
            call.tickets[ticket] = None
            if self._thread is None:
                self._start(call, ticket)
            return call

    def _start(self, call: _Call, ticket: _Ticket) -> None:
        thread = self._thread = threading.Thread(target=self._run, name="tessaline-waiter", daemon=True)
        try:
            thread.start()
        except BaseException:
            call.tickets.pop(ticket, None)
            # Ctrl-C may interrupt the start after the thread has begun.
            if thread.ident is None:
                self._thread = None
            raise

    def _run(self) -> None:
        try:
            while (call := self._next()) is not None:
                self._make(call)
        except BaseException as error:
            # KeyboardInterrupt and SystemExit are raised in the tasks and end the loop, or else the thread.
            if not self._fail_all(error):
                raise

    def _next(self) -> _Call | None:
        with self._lock:
            while self._coming:
                call = self._coming.pop(next(iter(self._coming)))
                if call.tickets:
                    self._running = call
                    return call
            self._thread = None
            return None

    def _make(self, call: _Call) -> None:
        try:
            value = call.work()
        except Exception as error:
            with self._lock:
                self._running = None
                late = self._coming.pop(call.key, None)
                tickets = call.take() + (late.take() if late is not None else [])
            _give_error(tickets, error)
        else:
            with self._lock:
                self._running = None
                tickets = call.take()
            for ticket in tickets:
                ticket.value = value
            wake_all(ticket.signal for ticket in tickets)

    def _fail_all(self, error: BaseException) -> bool:
        """Raise the error in all waiting tasks; returns whether there was one."""
        with self._lock:
            calls = list(self._coming.values())
            self._coming.clear()
            if self._running is not None:
                calls.append(self._running)
            if threading.current_thread() is self._thread:
                self._running = self._thread = None
            tickets = [ticket for call in calls for ticket in call.take()]
        return _give_error(tickets, error)


def _give_error(tickets: Sequence[_Ticket], error: BaseException) -> bool:
    trace = error.__traceback__
    # Without the frames of this module, which refer to all waiting tasks.
    while trace is not None and trace.tb_frame.f_globals is globals():
        trace = trace.tb_next
    for place, ticket in enumerate(tickets):
        ticket.error = error if place == 0 else twin_of(error)
        ticket.trace = trace
    return wake_all(ticket.signal for ticket in tickets)


_living: weakref.WeakSet[Waiter] = weakref.WeakSet()


def _begin_in_child() -> None:
    # The thread, the waiting tasks and the owner of the lock are in the parent.
    for waiter in _living:
        waiter.begin_in_child()


os.register_at_fork(after_in_child=_begin_in_child)

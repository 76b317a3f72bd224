"""A refresh loop that a newer one has superseded ends, wherever it is at that time."""

from __future__ import annotations

import threading
import time

from tests.shared.threads import join_all, until

from .support.managers import build
from .support.service import Gate, Service


class HeldEvent(threading.Event):
    """The first thread that is about to wait for it blocks before that."""

    def __init__(self) -> None:
        super().__init__()
        self.gate = Gate()
        self._first: threading.Thread | None = None

    def wait(self, timeout: float | None = None) -> bool:
        if self._first is None:
            self._first = threading.current_thread()
            self.gate()
        return super().wait(timeout)


class CountedEvent(threading.Event):
    """Reports which threads wait for it."""

    def __init__(self) -> None:
        super().__init__()
        self.waiting: list[threading.Thread] = []

    def wait(self, timeout: float | None = None) -> bool:
        self.waiting.append(threading.current_thread())
        return super().wait(timeout)


def test_a_superseded_loop_that_is_about_to_sleep_learns_of_the_close(service: Service) -> None:
    # On the default clock a loop sleeps until its refresh point, which is hours away.
    manager = build(service, default_clock=True)
    manager._refresh_event = event = HeldEvent()
    manager.authenticate()
    older = manager._refresh_thread
    event.gate.reached()
    manager.authenticate()
    newer = manager._refresh_thread
    manager.close()
    join_all([newer])
    event.gate.open()
    join_all([older])


def test_a_loop_superseded_while_it_looks_for_older_ones_is_not_forgotten(service: Service) -> None:
    with build(service, default_clock=True) as manager:
        manager._refresh_event = event = CountedEvent()
        manager.authenticate()
        first = manager._refresh_thread
        second: list[threading.Thread] = []

        def is_alive() -> bool:
            alive = threading.Thread.is_alive(first)
            here = threading.current_thread()
            if not alive and not second and here is not threading.main_thread():
                second.append(here)
                manager.authenticate()
            return alive

        def get_time() -> float:
            here = threading.current_thread()
            if second and here not in (threading.main_thread(), *second):
                until(lambda: second[0] in event.waiting, "the second loop's sleep")
            return time.time()

        first.is_alive = is_alive
        manager._get_time = get_time
        manager.authenticate()
        until(lambda: second and manager._refresh_thread is not second[0], "the third loop")
        join_all([first, *second])
        assert manager._refresh_thread.is_alive()

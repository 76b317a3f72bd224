"""Callers with odd time-outs, and many that report at the worst time."""

from __future__ import annotations

import threading
from typing import Any

import pytest

from tests.shared.threads import Worker, until

from .support.driving import has_failed, pass_time, settle, to_next_attempt
from .support.faults import away
from .support.looks import WatchedClock
from .support.service import LIFETIME, Service

RENEWAL = 0.63 * LIFETIME + 1
NAN = float("nan")


@pytest.fixture
def clock() -> WatchedClock:
    return WatchedClock()


class Readings:
    """Reports when workers have read the clock, where they hold the keeper's lock until they wait."""

    def __init__(self, clock: WatchedClock) -> None:
        self.of: dict[int, int] = {}
        clock.before = self._count

    def _count(self) -> None:
        here = threading.current_thread()
        if here.name == Worker.NAME:
            self.of[here.ident] = self.of.get(here.ident, 0) + 1

    def wait_for(self, times: int, keeper: Any, workers: int = 1) -> None:
        until(lambda: sum(count >= times for count in self.of.values()) >= workers, "readings of the clock")
        # Needs the lock.
        keeper.status()


def test_a_report_during_a_renewal_costs_no_second_login(
    keeper: Any, service: Service, clock: WatchedClock
) -> None:
    refused = keeper.get_token()
    gate = service.hold()
    clock.now += RENEWAL
    gate.reached()
    readings = Readings(clock)
    first = Worker(keeper.report_refused, refused)
    readings.wait_for(1, keeper)
    reporting = [first, *(Worker(keeper.report_refused, refused) for _ in range(20))]
    service.let_go()
    assert [one.result() for one in reporting] == [True] * 21
    clock.await_looks()
    settle(keeper, clock)
    assert len(service.granted) == 2
    assert keeper.get_token(timeout=0) == service.granted[1].token


@pytest.mark.parametrize("timeout", [float("inf"), 1e10, 1e300, 2**64], ids=repr)
def test_a_wait_may_be_as_long_as_one_likes(
    timeout: float, keeper: Any, service: Service, clock: WatchedClock
) -> None:
    service.fault = away()
    clock.now += LIFETIME
    has_failed(keeper)
    readings = Readings(clock)
    waiting = Worker(keeper.get_token, timeout=timeout)
    # Its own, and those that it makes with the lock.
    readings.wait_for(2, keeper)
    assert waiting.alive
    service.heal()
    to_next_attempt(keeper, clock)
    assert waiting.result() == service.granted[1].token


def test_a_time_out_that_is_no_number(keeper: Any, service: Service, clock: WatchedClock) -> None:
    # While a token is valid no call waits.
    assert keeper.get_token(timeout=NAN) == service.granted[0].token
    service.fault = away()
    clock.now += LIFETIME
    has_failed(keeper)
    worker = Worker(keeper.get_token, timeout=NAN)
    assert isinstance(worker.failure(5.0), ValueError)
    # No thread is left that spins.
    service.heal()
    pass_time(keeper, clock, 10.0)
    assert keeper.get_token(timeout=0) == service.granted[1].token

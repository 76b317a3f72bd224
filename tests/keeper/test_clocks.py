"""Clocks that are set back and ahead, stand still, or were suspended: the token's age follows the clock."""

from __future__ import annotations

import time
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until

from .support.driving import pass_time, settle, to_next_attempt
from .support.faults import TRANSIENT, away
from .support.service import LIFETIME, Service
from .support.wallets import fleet

HOUR = 3600.0
DAY = 24 * HOUR
LONGEST = 300.0


@pytest.mark.parametrize("back", [1.0, HOUR, 5 * HOUR, 10 * DAY])
def test_set_back_a_good_token_is_served(
    back: float, keeper: Any, service: Service, clock: HandClock
) -> None:
    clock.now -= back
    settle(keeper, clock)
    assert keeper.get_token(timeout=0) == service.granted[-1].token
    # And renewed at the reported time.
    for _ in range(3):
        pass_time(keeper, clock, 0.63 * LIFETIME + 1)
        assert keeper.get_token(timeout=0) == service.granted[-1].token
    assert keeper.status().expiry > clock.now


@pytest.mark.parametrize("back", [HOUR, 10 * DAY])
def test_set_back_during_an_outage_the_next_attempt_is_not_put_off(
    back: float, keeper: Any, service: Service, clock: HandClock
) -> None:
    # It was due at a time that is now days away.
    service.fault = away()
    pass_time(keeper, clock, LIFETIME)
    for _ in range(9):
        to_next_attempt(keeper, clock)
    clock.now -= back
    service.heal()
    for _ in range(4):
        time.sleep(0.02)
        clock.now += LONGEST / 3
    until(lambda: len(service.granted) == 2, "an attempt after a pause", timeout=5.0)
    settle(keeper, clock)
    assert keeper.get_token(timeout=0) == service.granted[1].token


@pytest.mark.parametrize("ahead", [LIFETIME, 20 * DAY])
def test_set_ahead_the_token_is_not_served_any_more(
    ahead: float, keeper: Any, service: Service, clock: HandClock
) -> None:
    gate = service.hold()
    clock.now += ahead
    Worker(keeper.get_token, timeout=0).failure()
    gate.reached()
    service.let_go()
    assert keeper.get_token() == service.granted[1].token


def test_a_laptop_that_slept_renews_when_it_wakes(keeper: Any, service: Service, clock: HandClock) -> None:
    for hours in (20, 23):
        before = len(service.granted)
        pass_time(keeper, clock, hours * HOUR)
        assert len(service.granted) == before + 1
        assert keeper.status().expiry == clock.now + LIFETIME


def test_to_and_fro_costs_a_few_logins(keeper: Any, service: Service, clock: HandClock) -> None:
    for _ in range(5):
        pass_time(keeper, clock, 40 * DAY)
        assert keeper.get_token() == service.granted[-1].token
        clock.now -= 40 * DAY
        settle(keeper, clock)
        assert keeper.get_token() == service.granted[-1].token
    # At most one for each time that it was set.
    assert len(service.granted) <= 11


def test_a_clock_that_stands_still_is_no_trouble(keeper: Any, service: Service, clock: HandClock) -> None:
    service.era = 2
    keeper.notify_era_change(2)
    assert keeper.get_token() == service.granted[1].token
    clock.now += 600.0
    assert keeper.report_refused(keeper.get_token()) is True
    assert keeper.get_token(timeout=0) == service.granted[2].token


def test_a_wait_ends_by_real_time_where_the_clock_stands(
    keeper: Any, service: Service, clock: HandClock
) -> None:
    service.fault = away()
    pass_time(keeper, clock, LIFETIME)
    worker = Worker(keeper.get_token, timeout=0.3)
    assert isinstance(worker.failure(), auth.NetworkError)
    assert 0.3 <= worker.seconds < 3.0


def test_the_usual_clock_is_that_of_the_wall(make_keeper: Callable[..., Any]) -> None:
    service = Service(time.time)
    keeper = make_keeper(managers=fleet(service, None, 2))
    keeper.start()
    for one in keeper:
        status = keeper[one].status()
        assert keeper[one].get_token(timeout=0) == service.newest(one)
        assert abs(status.last_success - time.time()) < 60
        assert status.expiry == pytest.approx(status.last_success + LIFETIME, abs=1)
        assert 0.5 * LIFETIME < status.next_attempt - status.last_success < 0.65 * LIFETIME


def test_on_the_usual_clock_a_failure_is_tried_again_after_a_second(make_keeper: Callable[..., Any]) -> None:
    service = Service(time.time)
    # The manager's own back-off would take real time.
    service.fault, _ = TRANSIENT["a proxy refuses"]
    keeper = make_keeper(managers=fleet(service, None, 1))
    starting = Worker(keeper.start)
    until(lambda: keeper.status().failures == 1, "a failure")
    service.heal()
    starting.result()
    assert starting.seconds < 10.0
    assert keeper.get_token(timeout=0) == service.granted[0].token

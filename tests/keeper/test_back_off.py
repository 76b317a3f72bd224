"""Between failures: from a second to five minutes, doubling, with jitter, and without a limit."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from itertools import pairwise
from typing import Any

import pytest

from tests.contract.support.service import REGISTER
from tests.shared.clocks import HandClock

from .support.driving import has_failed, pass_time, settle, to_next_attempt
from .support.faults import answers, away
from .support.service import LIFETIME, Service
from .support.wallets import manager

LONGEST = 300.0
# How far a delay with jitter may be from the nominal one.
SHORTER, LONGER = 0.5, 2.0
DOUBLINGS = 9
RENEWAL = 0.63 * LIFETIME + 1


def pauses(keeper: Any, clock: HandClock, count: int) -> list[float]:
    return [to_next_attempt(keeper, clock) for _ in range(count)]


def meant(count: int) -> Sequence[float]:
    return [min(2.0**number, LONGEST) for number in range(count)]


def test_pauses_double_from_a_second_to_five_minutes(keeper: Any, service: Service, clock: HandClock) -> None:
    service.fault = away()
    pass_time(keeper, clock, RENEWAL)
    seen = pauses(keeper, clock, 20)
    for pause, foretold in zip(seen, meant(20), strict=True):
        assert SHORTER * foretold <= pause <= LONGER * foretold
    assert min(seen) >= 1.0
    assert max(seen) <= LONGEST
    # Without jitter those at the end would be equal.
    assert len({round(pause, 3) for pause in seen[DOUBLINGS:]}) > 5


def test_wallets_do_not_try_in_step(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    service.fault = away()
    keeper = make_keeper(10)
    keeper.start(wait=False)
    has_failed(keeper)
    for _ in range(3):
        pass_time(keeper, clock, 600.0)
    nexts = [keeper[one].status().next_attempt for one in keeper]
    assert len({round(when, 3) for when in nexts}) > 5


def test_an_outage_of_days_is_tried_through(keeper: Any, service: Service, clock: HandClock) -> None:
    service.fault = away()
    pass_time(keeper, clock, RENEWAL)
    began, before = clock.now, len(service.attempts())
    while clock.now < began + LIFETIME:
        to_next_attempt(keeper, clock)
    tried = len(service.attempts()) - before
    assert LIFETIME / (LONGEST) <= tried <= DOUBLINGS + LIFETIME / (SHORTER * LONGEST)
    assert keeper.status().failures == tried + 1
    # Nothing was skipped: the first attempt after the outage is at most one delay later.
    service.heal()
    assert to_next_attempt(keeper, clock) <= LONGEST
    assert keeper.get_token(timeout=0) == service.granted[-1].token


def test_a_month_away_from_the_keyboard_is_one_attempt(
    keeper: Any, service: Service, clock: HandClock
) -> None:
    service.fault = away()
    pass_time(keeper, clock, RENEWAL)
    before = len(service.attempts())
    pass_time(keeper, clock, 30 * LIFETIME)
    assert len(service.attempts()) - before == 1
    service.heal()
    assert to_next_attempt(keeper, clock) <= LONGEST
    assert keeper.status().state == "good"


def test_success_makes_it_start_over(keeper: Any, service: Service, clock: HandClock) -> None:
    for _ in range(2):
        service.fault = away()
        pass_time(keeper, clock, RENEWAL)
        first, *_, last = pauses(keeper, clock, 7)
        assert first <= LONGER
        assert last >= SHORTER * 64
        service.heal()
        to_next_attempt(keeper, clock)
        assert keeper.status().failures == 0


# What a server may send, and the resulting delay. The manager reads only this name of the field.
TOLD = {"1": 1, "7": 7, "299": 299, "301": LONGEST, "86400": LONGEST, str(10**30): LONGEST}


@pytest.mark.parametrize("told", TOLD)
def test_what_the_server_asks_for_is_obeyed_up_to_five_minutes(
    told: str, make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    keeper = make_keeper()
    service.fault = answers(429, Retry_After=told)
    keeper.start(wait=False)
    has_failed(keeper)
    began, before = clock.now, service.count(REGISTER)
    pass_time(keeper, clock, TOLD[told] - 0.5)
    assert service.count(REGISTER) == before
    service.heal()
    pass_time(keeper, clock, began + LONGEST + 1.0 - clock.now)
    assert keeper.status().state == "good"


@pytest.mark.parametrize("told", TOLD)
def test_no_request_comes_before_the_server_wants_it(
    told: str, make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    # Without a keeper a manager waits between the requests of one login. That wait advances its clock.
    mine = manager(service, clock)

    def wait(seconds: float) -> None:
        clock.now += seconds

    mine._wait_with_clock = wait
    keeper = make_keeper(managers=mine)
    service.fault = answers(429, Retry_After=told)
    keeper.start(wait=False)
    for failures in range(1, 4):
        has_failed(keeper, failures)
        to_next_attempt(keeper, clock)
    times = [asked.at for asked in service.asked]
    assert len(times) >= 4
    assert min(later - earlier for earlier, later in pairwise(times)) >= TOLD[told]


@pytest.mark.parametrize("name", ["Retry-After", "retry-after", "RETRY-AFTER"])
@pytest.mark.parametrize("status", [429, 503])
@pytest.mark.parametrize("told", ["86400", "0", "-5", "soon", "", "1e9", "Wed, 21 Oct 2065 07:28:00 GMT"])
def test_nothing_that_a_server_says_holds_a_login_for_long(
    told: str, status: int, name: str, make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    mine = manager(service, clock)
    waits: list[float] = []
    mine._wait_with_clock = waits.append
    keeper = make_keeper(managers=mine)
    service.fault = lambda asked: (status, {name: told}, b"")
    keeper.start(wait=False)
    has_failed(keeper)
    assert all(seconds <= LONGEST for seconds in waits)
    assert keeper.status().next_attempt <= clock.now + LONGEST
    service.heal()
    pass_time(keeper, clock, LONGEST + 1)
    assert keeper.status().state == "good"


def test_attempts_are_never_made_before_their_time(keeper: Any, service: Service, clock: HandClock) -> None:
    service.fault = away()
    pass_time(keeper, clock, RENEWAL)
    for _ in range(6):
        due = keeper.status().next_attempt
        while clock.now + 0.25 < due:
            pass_time(keeper, clock, max(0.25, (due - clock.now) / 2 - 0.25))
            assert service.attempts()[-1] < due
        clock.now = max(clock.now, due)
        settle(keeper, clock)
    times = service.attempts()[1:]
    assert all(later > earlier for earlier, later in pairwise(times))

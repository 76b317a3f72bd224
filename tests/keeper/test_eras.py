"""Announced eras: older copies are dropped at once, and logins continue until a new one is fetched."""

from __future__ import annotations

import sys
import threading
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.contract.support.managers import reason
from tests.contract.support.service import era_of
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, join_all

from .support.driving import Heard, has_failed, pass_time, settle, to_next_attempt
from .support.faults import away
from .support.service import LIFETIME, Asked, Service


def enter(service: Service, keeper: Any, era: int) -> None:
    service.era = era
    keeper.notify_era_change(era)


def test_a_token_of_the_era_is_fetched(keeper: Any, service: Service, clock: HandClock, heard: Heard) -> None:
    enter(service, keeper, 2)
    assert era_of(keeper.get_token()) == 2
    settle(keeper, clock)
    assert len(service.granted) == 2
    event = heard.wait_for("era met")
    assert event.era == 2


def test_the_old_copy_is_gone_before_it_returns(keeper: Any, service: Service) -> None:
    service.hold()
    enter(service, keeper, 2)
    assert reason(Worker(keeper.get_token, timeout=0).failure()) == "era_change_pending"
    service.let_go()
    assert era_of(keeper.get_token()) == 2


def test_no_thread_gets_an_old_token_from_then_on(keeper: Any, service: Service) -> None:
    announced = [1]
    old: list[tuple[int, int]] = []
    asked = [0] * 4
    over = threading.Event()

    def ask(number: int) -> None:
        while not over.is_set():
            least = announced[0]
            try:
                era = era_of(keeper.get_token(timeout=0))
            except auth.AuthError:
                continue
            asked[number] += 1
            if era < least:
                old.append((era, least))

    threads = [threading.Thread(target=ask, args=(number,)) for number in range(len(asked))]
    usual = sys.getswitchinterval()
    sys.setswitchinterval(5e-5)
    try:
        for thread in threads:
            thread.start()
        for era in range(2, 60):
            enter(service, keeper, era)
            announced[0] = era
            assert era_of(keeper.get_token()) == era
    finally:
        sys.setswitchinterval(usual)
        over.set()
        join_all(threads)
    assert old == []
    assert min(asked) > 0


def test_who_waits_does_not_get_a_token_of_the_era_before(keeper: Any, service: Service) -> None:
    # The login of an older era is running when the newer one is announced.
    gate = service.hold()
    enter(service, keeper, 2)
    gate.reached()
    waiting = [Worker(keeper.get_token) for _ in range(4)]
    keeper.notify_era_change(3)

    def enter_the_next(asked: Asked) -> None:
        if len(service.granted) == 2:
            service.era = 3

    service.on_request = enter_the_next
    service.let_go()
    assert [era_of(one.result()) for one in waiting] == [3] * 4
    assert [granted.era for granted in service.granted] == [1, 2, 3]


def test_a_login_that_the_era_overtakes_is_not_served(
    keeper: Any, service: Service, clock: HandClock
) -> None:
    gate = service.hold()
    clock.now += LIFETIME
    gate.reached()
    waiting = Worker(keeper.get_token, timeout=None)
    keeper.notify_era_change(5)
    service.era = 5
    service.let_go()
    assert era_of(waiting.result()) == 5


def test_an_era_that_the_server_has_not_reached_is_asked_for_until_it_has(
    keeper: Any, service: Service, clock: HandClock, heard: Heard
) -> None:
    keeper.notify_era_change(4)
    has_failed(keeper)
    for _ in range(5):
        assert reason(Worker(keeper.get_token, timeout=0).failure()) == "era_mismatch"
        to_next_attempt(keeper, clock)
    assert keeper.status().failures >= 5
    assert keeper.status().reason == "era_mismatch"
    service.era = 3
    to_next_attempt(keeper, clock)
    assert reason(Worker(keeper.get_token, timeout=0).failure()) == "era_mismatch"
    service.era = 4
    to_next_attempt(keeper, clock)
    assert era_of(keeper.get_token(timeout=0)) == 4
    assert keeper.status().state == "good"
    assert [event.era for event in heard.of("era met")] == [4]


def test_an_era_announced_while_the_server_is_away(keeper: Any, service: Service, clock: HandClock) -> None:
    service.fault = away()
    enter(service, keeper, 2)
    has_failed(keeper)
    waiting = Worker(keeper.get_token, timeout=None)
    for _ in range(5):
        to_next_attempt(keeper, clock)
    assert isinstance(Worker(keeper.get_token, timeout=0).failure(), auth.NetworkError)
    assert waiting.alive
    service.heal()
    to_next_attempt(keeper, clock)
    assert era_of(waiting.result()) == 2


def test_an_announcement_does_not_wait_out_a_back_off(
    keeper: Any, service: Service, clock: HandClock
) -> None:
    service.fault = away()
    pass_time(keeper, clock, 0.63 * LIFETIME + 1)
    for _ in range(9):
        to_next_attempt(keeper, clock)
    service.heal()
    enter(service, keeper, 2)
    assert era_of(keeper.get_token()) == 2


@pytest.mark.parametrize("era", [1, 2, 3])
def test_an_era_that_is_there_already_costs_nothing(
    era: int, make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    service.era = 3
    keeper = make_keeper(3)
    keeper.start()
    keeper.notify_era_change(era)
    assert [keeper[one].get_token(timeout=0) for one in keeper] == [service.newest(one) for one in keeper]
    pass_time(keeper, clock, 1.0)
    assert len(service.granted) == 3


def test_a_lower_number_lowers_nothing(keeper: Any, service: Service) -> None:
    service.hold()
    keeper.notify_era_change(6)
    keeper.notify_era_change(2)
    service.era = 5
    assert reason(Worker(keeper.get_token, timeout=0).failure()) == "era_change_pending"
    service.era = 6
    service.let_go()
    assert era_of(keeper.get_token()) == 6


@pytest.mark.parametrize("era", [0, -1, -(10**30)])
def test_a_number_that_is_none_is_refused_as_a_manager_refuses_it(
    era: int, keeper: Any, service: Service
) -> None:
    texts = []
    for told in (keeper, service_manager(service)):
        with pytest.raises(ValueError) as caught:
            told.notify_era_change(era)
        texts.append(str(caught.value))
    assert texts[0] == texts[1]
    assert keeper.get_token(timeout=0) == service.granted[0].token


def service_manager(service: Service) -> Any:
    from .support.wallets import manager

    with manager(service, service.clock, 1) as made:
        return made


@pytest.mark.parametrize("era", ["2", None, 2.5])
def test_what_is_no_number_is_a_type_error(era: Any, keeper: Any, service: Service) -> None:
    with pytest.raises(TypeError):
        keeper.notify_era_change(era)
    assert keeper.get_token(timeout=0) == service.granted[0].token


def test_before_the_start_it_is_remembered(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    keeper = make_keeper()
    keeper.notify_era_change(2)
    assert service.asked == []
    starting = Worker(keeper.start)
    has_failed(keeper)
    assert starting.alive
    assert isinstance(Worker(keeper.get_token, timeout=0).failure(), auth.AuthError)
    service.era = 2
    to_next_attempt(keeper, clock)
    starting.result()
    assert era_of(keeper.get_token(timeout=0)) == 2


def test_after_the_end_it_says_so(keeper: Any) -> None:
    keeper.close()
    with pytest.raises(auth.AuthError) as caught:
        keeper.notify_era_change(2)
    assert reason(caught.value) == "manager_closed"


def test_it_listens_where_a_manager_does(keeper: Any, service: Service) -> None:
    auth._set_active_auth_manager(keeper)
    try:
        service.era = 2
        auth.notify_era_change(2)
        assert era_of(keeper.get_token()) == 2
    finally:
        auth._set_active_auth_manager(None)


def test_a_service_without_eras_goes_on_without_them(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    service.era = None
    keeper = make_keeper()
    keeper.start()
    pass_time(keeper, clock, LIFETIME)
    assert keeper.get_token(timeout=0) == service.granted[1].token


def test_a_server_that_runs_ahead_of_the_announcements_does_no_harm(
    keeper: Any, service: Service, clock: HandClock
) -> None:
    service.era = 7
    pass_time(keeper, clock, 0.63 * LIFETIME + 1)
    assert era_of(keeper.get_token(timeout=0)) == 7
    keeper.notify_era_change(7)
    assert era_of(keeper.get_token(timeout=0)) == 7
    assert len(service.granted) == 2


def test_every_wallet_of_a_fleet_drops_its_copy(make_keeper: Callable[..., Any], service: Service) -> None:
    keeper = make_keeper(20)
    keeper.start()
    service.hold()
    enter(service, keeper, 2)
    for one in keeper:
        assert reason(Worker(keeper[one].get_token, timeout=0).failure()) == "era_change_pending"
    service.let_go()
    assert {era_of(keeper[one].get_token()) for one in keeper} == {2}

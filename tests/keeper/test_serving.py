"""`get_token()`: while a token is valid no call waits or fails, whatever happens."""

from __future__ import annotations

import inspect
import time
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tessaline.keeper import Keeper
from tests.contract.support.managers import reason
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until

from .support.driving import pass_time, settle
from .support.faults import FINAL, FINAL_AT_FIRST, TRANSIENT, away
from .support.service import LIFETIME, Service
from .support.wallets import manager

RENEWAL = 0.63 * LIFETIME + 1


def refused(keeper: Any, timeout: float | None = 0) -> BaseException:
    worker = Worker(keeper.get_token, timeout=timeout)
    return worker.failure()


def test_it_is_the_services_own(keeper: Any, service: Service) -> None:
    assert keeper.get_token() == keeper.get_token(timeout=0) == keeper.get_token(timeout=None)
    assert keeper.get_token() == service.granted[0].token


def test_ten_seconds_are_usual() -> None:
    assert inspect.signature(Keeper.get_token).parameters["timeout"].default == 10.0


def test_nobody_waits_while_the_manager_is_blocked(keeper: Any, service: Service, clock: HandClock) -> None:
    gate = service.hold()
    clock.now += RENEWAL
    gate.reached()
    assert keeper.status().state == "renewing"
    for timeout in (0, 10.0, None):
        assert Worker(keeper.get_token, timeout=timeout).result(2.0) == service.granted[0].token


@pytest.mark.parametrize("name", [*TRANSIENT, *FINAL, *FINAL_AT_FIRST])
def test_nobody_is_refused_while_renewals_fail(
    name: str, keeper: Any, service: Service, clock: HandClock
) -> None:
    service.fault = (TRANSIENT | FINAL | FINAL_AT_FIRST)[name][0]
    first = service.granted[0].token
    for step in (RENEWAL, 3600.0, 3600.0):
        pass_time(keeper, clock, step)
        assert keeper.status().failures > 0
        assert keeper.get_token(timeout=0) == first
    # The rounding error of a float here is far smaller.
    clock.now = keeper.status().expiry - 0.001
    assert keeper.get_token(timeout=0) == first


def test_the_token_is_served_up_to_its_expiry_and_not_at_it(
    keeper: Any, service: Service, clock: HandClock
) -> None:
    service.hold()
    expiry = clock.now + LIFETIME
    assert keeper.status().expiry == expiry
    clock.now = expiry - 0.5
    assert keeper.get_token(timeout=0) == service.granted[0].token
    clock.now = expiry
    assert isinstance(refused(keeper), auth.AuthError)


def test_a_manager_that_somebody_has_closed_takes_nothing_away(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    mine = manager(service, clock)
    keeper = make_keeper(managers=mine)
    keeper.start()
    mine.close()
    assert keeper.get_token(timeout=0) == service.granted[0].token
    pass_time(keeper, clock, RENEWAL)
    assert keeper.get_token(timeout=0) == service.granted[0].token
    clock.now += LIFETIME
    assert reason(refused(keeper, timeout=None)) == "manager_closed"


def test_before_the_start_there_is_nothing_to_wait_for(make_keeper: Callable[..., Any]) -> None:
    keeper = make_keeper()
    for timeout in (0, 10.0, None):
        worker = Worker(keeper.get_token, timeout=timeout)
        assert reason(worker.failure()) == "not_authenticated"
        assert worker.seconds < 2.0


def test_during_the_first_login_who_does_not_wait_is_told_so(
    make_keeper: Callable[..., Any], service: Service
) -> None:
    service.hold()
    keeper = make_keeper()
    keeper.start(wait=False)
    assert reason(refused(keeper)) == "not_authenticated"


def test_after_an_expiry_without_a_failure_who_does_not_wait_is_told_so(
    keeper: Any, service: Service, clock: HandClock
) -> None:
    service.hold()
    clock.now += LIFETIME + 5
    assert reason(refused(keeper)) == "token_expired"


@pytest.mark.parametrize("name", TRANSIENT)
def test_past_the_expiry_it_raises_what_the_last_attempt_met(
    name: str, keeper: Any, service: Service, clock: HandClock
) -> None:
    service.fault, words = TRANSIENT[name]
    pass_time(keeper, clock, LIFETIME + 1)
    error = refused(keeper)
    assert str(error) == words
    assert type(error) is not auth.AuthError
    worker = Worker(keeper.get_token, timeout=0.2)
    assert str(worker.failure()) == words
    assert 0.2 <= worker.seconds < 3.0


def test_an_error_that_is_raised_often_does_not_grow(keeper: Any, service: Service, clock: HandClock) -> None:
    service.fault = away()
    pass_time(keeper, clock, LIFETIME + 1)

    def depth() -> tuple[int, int]:
        with pytest.raises(auth.NetworkError) as caught:
            keeper.get_token(timeout=0)
        frames, trace = 0, caught.value.__traceback__
        while trace is not None:
            frames, trace = frames + 1, trace.tb_next
        links = 0
        link: BaseException | None = caught.value
        while link is not None and links < 1000:
            links, link = links + 1, link.__context__
        return frames, links

    before = depth()
    for _ in range(200):
        depth()
    assert depth() == before


def test_a_negative_time_is_no_time(keeper: Any, service: Service, clock: HandClock) -> None:
    service.hold()
    clock.now += LIFETIME
    worker = Worker(keeper.get_token, timeout=-1.0)
    worker.failure()
    assert worker.seconds < 2.0


def test_many_who_wait_get_the_token_when_it_comes(keeper: Any, service: Service, clock: HandClock) -> None:
    gate = service.hold()
    clock.now += LIFETIME
    gate.reached()
    waiting = [Worker(keeper.get_token, timeout=timeout) for timeout in (None, 15.0) * 10]
    service.let_go()
    assert {one.result() for one in waiting} == {service.granted[1].token}
    assert len(service.granted) == 2


def test_who_waits_is_served_when_the_server_is_back(keeper: Any, service: Service, clock: HandClock) -> None:
    service.fault = away()
    pass_time(keeper, clock, LIFETIME)
    waiting = Worker(keeper.get_token, timeout=None)
    service.heal()
    clock.now += 1000.0
    assert waiting.result() == service.granted[1].token
    settle(keeper, clock)


def test_a_close_wakes_all_who_wait(keeper: Any, service: Service, clock: HandClock) -> None:
    service.fault = away()
    pass_time(keeper, clock, LIFETIME)
    waiting = [Worker(keeper.get_token, timeout=timeout) for timeout in (None, 60.0) * 5]
    time.sleep(0.05)
    keeper.close()
    for one in waiting:
        assert reason(one.failure(3.0)) == "manager_closed"
    assert reason(refused(keeper)) == "manager_closed"


def test_a_closed_keeper_gives_no_good_token_either(keeper: Any) -> None:
    keeper.close()
    for timeout in (0, None):
        assert reason(refused(keeper, timeout)) == "manager_closed"


def test_a_fleet_is_asked_by_address(make_keeper: Callable[..., Any], service: Service) -> None:
    keeper = make_keeper(3)
    keeper.start()
    with pytest.raises(ValueError):
        keeper.get_token()
    addresses = list(keeper)
    assert len(keeper) == len(addresses) == len(set(addresses)) == 3
    for one in addresses:
        assert one == one.lower() and len(one) == 42
        written = "0x" + one[2:].upper()
        assert one in keeper and written in keeper
        assert keeper[written].address == keeper[one].address == one
        assert keeper[written].get_token() == service.newest(one)
    assert "0x" + 40 * "0" not in keeper
    with pytest.raises(KeyError):
        keeper["0x" + 40 * "0"]


def test_one_wallet_is_found_by_its_address_too(keeper: Any, address: str) -> None:
    assert len(keeper) == 1
    assert keeper[address].get_token() == keeper.get_token()


def test_a_clock_that_raises_for_a_while_ends_nothing(
    keeper: Any, service: Service, clock: HandClock
) -> None:
    clock.error = ZeroDivisionError("the clock")
    time.sleep(0.2)
    clock.error = None
    clock.now += RENEWAL
    until(lambda: len(service.granted) == 2, "the renewal")
    settle(keeper, clock)
    assert keeper.get_token(timeout=0) == service.granted[1].token

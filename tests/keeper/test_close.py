"""The end of a keeper at any time: all waiting threads wake, and nothing is left."""

from __future__ import annotations

import gc
import threading
import weakref
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tessaline.keeper import Keeper
from tests.contract.support.managers import reason
from tests.contract.support.threads import ThreadCensus
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until

from .support.driving import Heard, has_failed, pass_time
from .support.faults import away
from .support.service import LIFETIME, Service
from .support.wallets import fleet, manager

QUICK = 3.0


def is_closed(one: Any) -> bool:
    return one._state == "CLOSED" and one._private_key is None


def not_started(keeper: Any, service: Service, clock: HandClock) -> None:
    pass


def idle(keeper: Any, service: Service, clock: HandClock) -> None:
    keeper.start()


def logging_in(keeper: Any, service: Service, clock: HandClock) -> None:
    gate = service.hold()
    keeper.start(wait=False)
    gate.reached()


def retrying(keeper: Any, service: Service, clock: HandClock) -> None:
    service.fault = away()
    keeper.start(wait=False)
    has_failed(keeper)


def renewing(keeper: Any, service: Service, clock: HandClock) -> None:
    keeper.start()
    gate = service.hold()
    clock.now += LIFETIME
    gate.reached()


def meeting_an_era(keeper: Any, service: Service, clock: HandClock) -> None:
    keeper.start()
    gate = service.hold()
    keeper.notify_era_change(2)
    gate.reached()


STATES = [not_started, idle, logging_in, retrying, renewing, meeting_an_era]


@pytest.mark.parametrize("state", STATES)
def test_it_ends_in_every_state(
    state: Callable[..., None],
    make_keeper: Callable[..., Any],
    service: Service,
    clock: HandClock,
    census: ThreadCensus,
) -> None:
    managers = fleet(service, clock, 5)
    keeper = make_keeper(managers=managers, at_once=2)
    state(keeper, service, clock)
    Worker(keeper.close).result(QUICK)
    assert all(is_closed(one) for one in managers)
    assert keeper.status().state == "closed"
    Worker(keeper.close).result(QUICK)
    # A running request is not interrupted, and no thread waits for it.
    service.let_go()
    census.settle(0)
    for one in keeper:
        assert reason(Worker(keeper[one].get_token).failure(QUICK)) == "manager_closed"


def test_the_block_closes_it(service: Service, clock: HandClock, census: ThreadCensus) -> None:
    mine = manager(service, clock)
    with Keeper(mine) as keeper:
        keeper.start()
        assert keeper.get_token() == service.granted[0].token
    assert is_closed(mine)
    census.settle(0)


def test_the_block_leaves_errors_alone(service: Service, clock: HandClock) -> None:
    mine = manager(service, clock)
    with pytest.raises(ZeroDivisionError), Keeper(mine) as keeper:
        keeper.start()
        raise ZeroDivisionError
    assert is_closed(mine)


@pytest.mark.parametrize("kind", ["logged in", "renewed", "attempt failed", "era met", "stopped"])
def test_from_an_event(
    kind: str,
    make_keeper: Callable[..., Any],
    service: Service,
    clock: HandClock,
    heard: Heard,
    census: ThreadCensus,
) -> None:
    mine = manager(service, clock)
    keeper = make_keeper(managers=mine)
    heard.then = lambda event: event.kind == kind and keeper.close()
    keeper.start(wait=False)
    if kind != "logged in":
        heard.wait_for("logged in")
    if kind == "renewed":
        clock.now += 0.63 * LIFETIME + 1
    elif kind == "attempt failed":
        service.fault = away()
        clock.now += LIFETIME
    elif kind == "era met":
        service.era = 2
        keeper.notify_era_change(2)
    elif kind == "stopped":
        mine._state = "ASLEEP"
        clock.now += LIFETIME
    heard.wait_for(kind)
    until(lambda: keeper.status().state == "closed", "the end")
    census.settle(0)
    assert is_closed(mine)


def test_many_who_close_at_once(make_keeper: Callable[..., Any], service: Service, clock: HandClock) -> None:
    keeper = make_keeper(10)
    logging_in(keeper, service, clock)
    for closing in [Worker(keeper.close) for _ in range(8)]:
        closing.result(QUICK)


def test_everybody_who_waits_wakes(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    keeper = make_keeper(3)
    keeper.start()
    pass_time(keeper, clock, 600.0)
    tokens = {one: keeper[one].get_token() for one in keeper}
    service.hold()
    first, *_ = keeper
    reporting = Worker(keeper[first].report_refused, tokens[first])
    keeper.notify_era_change(2)
    waiting = [Worker(keeper[one].get_token, timeout=None) for one in keeper for _ in range(3)]
    starting = Worker(keeper.start)
    keeper.close()
    for one in waiting:
        assert reason(one.failure(QUICK)) == "manager_closed"
    reporting.finish(QUICK)
    starting.finish(QUICK)


@pytest.mark.parametrize("state", [not_started, idle, retrying])
def test_keeper_and_managers_are_forgotten(
    state: Callable[..., None], service: Service, clock: HandClock, census: ThreadCensus
) -> None:
    managers = fleet(service, clock, 3)
    gone = [weakref.ref(one) for one in managers]
    keeper = Keeper(managers, on_event=Heard())
    state(keeper, service, clock)
    gone.append(weakref.ref(keeper))
    keeper.close()
    census.settle(0)
    del keeper, managers
    gc.collect()
    assert [one() for one in gone] == [None] * 4


def test_an_event_that_refers_to_its_keeper_keeps_nothing(service: Service, clock: HandClock) -> None:
    class Application:
        def __init__(self) -> None:
            self.keeper = Keeper(manager(service, clock), on_event=self.heard)

        def heard(self, event: Any) -> None:
            pass

    application = Application()
    application.keeper.start()
    application.keeper.close()
    gone = weakref.ref(application)
    del application
    gc.collect()
    assert gone() is None


def test_a_wallet_outlives_its_keeper_and_says_so(keeper: Any, address: str) -> None:
    wallet = keeper[address]
    keeper.close()
    assert wallet.address == address
    assert wallet.status().state == "closed"
    assert reason(Worker(wallet.get_token).failure()) == "manager_closed"


def test_no_key_is_left_in_a_closed_manager(
    make_keeper: Callable[..., Any], service: Service, clock: Any
) -> None:
    managers = fleet(service, clock, 4)
    keeper = make_keeper(managers=managers)
    keeper.start()
    keeper.close()
    for one in managers:
        with pytest.raises(auth.AuthError, match="manager_closed"):
            one.get_token()
        assert one._private_key is None and one._token is None


def test_threads_are_daemons(keeper: Any, service: Service, clock: HandClock, census: ThreadCensus) -> None:
    gate = service.hold()
    clock.now += LIFETIME
    gate.reached()
    # The thread of the first login may not have ended yet.
    census.settle(2)
    threads = census.newcomers()
    assert all(thread.daemon for thread in threads)
    assert threading.main_thread() not in threads

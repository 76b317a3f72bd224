"""Clocks that raise, return nonsense or are set at the worst time: no step of the keeper stops half-way."""

from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

import pytest

from tessaline.keeper import EraBoard
from tests.contract.support.service import REGISTER, VERIFY, era_of
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until

from .support.driving import Heard, has_failed, pass_time, settle, to_next_attempt
from .support.faults import away
from .support.looks import SCHEDULER, WatchedClock
from .support.service import LIFETIME, Asked, Service
from .support.wallets import manager

DAY = 86400.0
RENEWAL = 0.63 * LIFETIME + 1


def trouble() -> OSError:
    return OSError("the clock is away")


@pytest.fixture
def clock() -> WatchedClock:
    return WatchedClock()


@pytest.fixture
def service(clock: WatchedClock) -> Any:
    """A manager whose clock never fails."""
    played = Service(lambda: clock.now)
    yield played
    played.let_go()


def test_raises_while_a_login_ends(keeper: Any, service: Service, clock: WatchedClock) -> None:
    def fail_at_the_end(asked: Asked) -> None:
        if asked.path == VERIFY:
            clock.error = trouble()

    service.on_request = fail_at_the_end
    clock.now += RENEWAL
    has_failed(keeper)
    service.on_request = clock.error = None
    to_next_attempt(keeper, clock)
    assert keeper.status().failures == 0
    assert keeper.get_token(timeout=0) == service.granted[-1].token != service.granted[0].token


def test_raises_while_an_era_is_announced(
    make_keeper: Callable[..., Any], service: Service, clock: WatchedClock
) -> None:
    keeper = make_keeper(3)
    keeper.start()
    service.era = 2
    clock.error = trouble()
    keeper.notify_era_change(2)
    clock.error = None
    # An attempt that failed because of the clock is retried.
    until(lambda: pass_time(keeper, clock, 10.0) or keeper.status().state == "good", "a good keeper")
    assert [era_of(keeper[one].get_token(timeout=0)) for one in keeper] == [2, 2, 2]


def test_raises_while_the_scheduler_takes_in_an_era(
    make_keeper: Callable[..., Any],
    service: Service,
    clock: WatchedClock,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    monkeypatch.setattr("tessaline.keeper.scheduler._PAUSE_AFTER_FAILURE", 0.01)
    board = EraBoard()
    keeper = make_keeper(2, era_board=board)
    keeper.start()
    failed = threading.Semaphore(0)

    def fail_after_the_announcement() -> None:
        if threading.current_thread().name == SCHEDULER and board.era == 2:
            failed.release()
            raise trouble()

    clock.before = fail_after_the_announcement
    service.era = 2
    board.announce(2)
    assert failed.acquire(timeout=20)
    clock.before = None
    clock.now += 1.0
    assert [era_of(keeper[one].get_token()) for one in keeper] == [2, 2]


def test_raises_while_it_is_started(
    make_keeper: Callable[..., Any], service: Service, clock: WatchedClock
) -> None:
    keeper = make_keeper()
    clock.error = trouble()
    keeper.start(wait=False)
    has_failed(keeper)
    clock.error = None
    starting = Worker(keeper.start)
    clock.now += 10.0
    starting.result()
    assert keeper.get_token(timeout=0) == service.granted[-1].token


def test_one_of_two_raises_at_the_start(
    make_keeper: Callable[..., Any], service: Service, clock: WatchedClock
) -> None:
    bad = HandClock()
    bad.error = trouble()
    keeper = make_keeper(managers=[manager(service, bad, 1), manager(service, clock, 2)])
    other, one = keeper
    keeper.start(wait=False)
    assert keeper[one].get_token() == service.newest(one)
    bad.error = None
    starting = Worker(keeper.start)
    until(lambda: keeper[other].status().next_attempt is not None or not starting.alive, "a plan")
    bad.now += 10.0
    starting.result()
    assert keeper[other].get_token(timeout=0) == service.newest(other)


def test_is_set_back_while_a_login_runs(
    keeper: Any, service: Service, clock: WatchedClock, heard: Heard
) -> None:
    def set_back(asked: Asked) -> None:
        if asked.path == VERIFY:
            clock.now -= 2 * DAY
            # Nothing else is fetched.
            service.on_request, service.fault = None, lambda later: None if later == asked else away()(later)

    service.on_request = set_back
    clock.now += RENEWAL
    heard.wait_for("renewed")
    clock.await_looks()
    assert keeper.get_token(timeout=0) == service.granted[1].token
    assert keeper.status().expiry == clock.now + LIFETIME


@pytest.mark.parametrize("reading", [1, 2, 3])
def test_raises_while_a_refusal_is_reported(
    reading: int, keeper: Any, service: Service, clock: WatchedClock
) -> None:
    left = reading

    def fail_once_here() -> None:
        nonlocal left
        if threading.current_thread() is threading.main_thread():
            left -= 1
            if left == 0:
                raise trouble()

    pass_time(keeper, clock, 600.0)
    assert keeper.report_refused(keeper.get_token()) is True
    pass_time(keeper, clock, 600.0)
    refused = service.granted[1].token
    clock.before = fail_once_here
    assert keeper.report_refused(refused) is True
    clock.before = None
    assert keeper.get_token(timeout=0) == service.granted[2].token
    # The next one is not mistaken for one that still waits.
    pass_time(keeper, clock, 600.0)
    assert keeper.report_refused(keeper.get_token()) is True
    assert len(service.granted) == 4


@pytest.mark.parametrize("nonsense", [float("nan"), float("inf"), float("-inf")], ids=repr)
def test_says_no_number(nonsense: float, keeper: Any, service: Service, clock: WatchedClock) -> None:
    service.fault = away()
    now, clock.now = clock.now, nonsense
    clock.await_looks()
    clock.now = now + 10.0
    settle(keeper, clock)
    assert service.count(REGISTER) == 1
    status = keeper.status()
    assert (status.state, status.seconds_left, status.failures) == ("good", LIFETIME - 10.0, 0)
    assert keeper.get_token(timeout=0) == service.granted[0].token


@pytest.mark.parametrize("begin", ["not started", "good"])
def test_raises_while_the_status_is_asked_for(
    begin: str, make_keeper: Callable[..., Any], clock: WatchedClock
) -> None:
    keeper = make_keeper(2)
    if begin == "good":
        keeper.start()
    before = keeper.status()
    clock.error = trouble()
    during = [keeper.status(), *(keeper[one].status() for one in keeper)]
    clock.error = None
    # What may have expired is not reported as valid.
    assert all(status.seconds_left == 0.0 and status.state != "good" for status in during)
    assert keeper.status() == before

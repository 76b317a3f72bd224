"""Thousands of announcements: one re-authentication at a time, the highest era, one refresh loop."""

from __future__ import annotations

import random
import threading
from collections.abc import Callable, Iterator
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.threads import DEADLINE, Worker, until

from .support.managers import build, reason
from .support.service import CHALLENGE, Service, always_answers, era_of
from .support.threads import ThreadCensus

pytestmark = pytest.mark.usefixtures("eager_switching")

ANNOUNCERS = 20
EACH = 500


class FlowCount:
    """How many re-authentications run concurrently, and on how many threads they have run."""

    def __init__(self, manager: Any) -> None:
        self.running = 0
        self.most = 0
        self.threads: set[threading.Thread] = set()
        self._lock = threading.Lock()
        self._manager = manager
        manager._do_auth_flow_matching_pending_era = self._counted

    def _counted(self) -> Any:
        with self._lock:
            self.running += 1
            self.most = max(self.most, self.running)
            self.threads.add(threading.current_thread())
        try:
            return auth.AuthManager._do_auth_flow_matching_pending_era(self._manager)
        finally:
            with self._lock:
                self.running -= 1


class RisingService(Service):
    """Its era is the highest that was announced."""

    def __init__(self) -> None:
        super().__init__(era=1)
        self._rising = threading.Lock()

    def reach(self, era: int) -> None:
        with self._rising:
            self.era = max(self.era or 1, era)


@pytest.fixture
def rising() -> Iterator[RisingService]:
    service = RisingService()
    yield service
    service.let_go()


def numbers(seed: int) -> list[int]:
    """Rising and falling, with repetitions."""
    chance = random.Random(seed)
    height = 100 * (seed + 1)
    return [max(1, height + chance.randint(-80, 80) + step // 4) for step in range(EACH)]


def storm(
    announce: Callable[[int], None],
    before: Callable[[int], None] = lambda era: None,
    pause: Callable[[], Any] = lambda: None,
) -> int:
    """Announce from many threads concurrently, with a delay now and then; returns the highest number."""
    together = threading.Barrier(ANNOUNCERS)
    plans = [numbers(seed) for seed in range(ANNOUNCERS)]

    def announcer(plan: list[int]) -> None:
        together.wait(10.0)
        for step, era in enumerate(plan):
            before(era)
            announce(era)
            if step % 10 == 9:
                pause()

    for caller in [Worker(announcer, plan) for plan in plans]:
        caller.result(30.0)
    assert sum(len(plan) for plan in plans) == 10_000
    return max(max(plan) for plan in plans)


def until_a_flow_ends(manager: Any) -> Callable[[], Any]:
    """A delay that lets the re-authentications run between the announcements."""
    return lambda: manager._auth_event.wait(DEADLINE)


def test_a_storm_during_one_reauthentication_starts_no_other(
    make_manager: Callable[..., Any], service: Service, census: ThreadCensus
) -> None:
    manager = make_manager()
    manager.authenticate()
    flows = FlowCount(manager)
    gate = service.hold(CHALLENGE)
    manager.notify_era_change(1)
    gate.reached()
    event = manager._auth_event
    before = set(census.newcomers())
    highest = storm(manager.notify_era_change)
    assert set(census.newcomers()) == before
    assert manager._pending_era_number == highest
    assert manager._auth_event is event and not event.is_set()
    service.era = highest
    service.let_go()
    assert era_of(manager.get_token()) == highest
    assert flows.most == 1 and len(flows.threads) == 1
    census.settle(1)


def test_a_storm_over_running_reauthentications(
    make_manager: Callable[..., Any], rising: RisingService, census: ThreadCensus
) -> None:
    manager = make_manager(service=rising)
    manager.authenticate()
    flows = FlowCount(manager)
    highest = storm(manager.notify_era_change, rising.reach, until_a_flow_ends(manager))
    # The last flow may have missed an era announced meanwhile; announcing a lower number then fetches it.
    until(lambda: manager._state == "AUTHENTICATED", "the end of the last flow")
    manager.notify_era_change(1)
    until(lambda: manager._state == "AUTHENTICATED", "the end of the very last flow")
    assert era_of(manager.get_token()) == highest
    assert manager._pending_era_number is None
    assert flows.most == 1
    assert len(flows.threads) > 20
    census.settle(1)


def test_a_storm_through_the_module(rising: RisingService, make_manager: Callable[..., Any]) -> None:
    manager = make_manager(service=rising)
    manager.authenticate()
    flows = FlowCount(manager)
    auth._set_active_auth_manager(manager)
    try:
        highest = storm(auth.notify_era_change, rising.reach, until_a_flow_ends(manager))
    finally:
        auth._set_active_auth_manager(None)
    until(lambda: manager._state == "AUTHENTICATED", "the end of the last flow")
    manager.notify_era_change(highest)
    assert era_of(manager.get_token()) == highest
    assert flows.most == 1
    assert len(flows.threads) > 20


def test_a_storm_whose_every_flow_fails(
    make_manager: Callable[..., Any], service: Service, census: ThreadCensus
) -> None:
    manager = make_manager()
    manager.authenticate()
    flows = FlowCount(manager)
    service.fault = always_answers(CHALLENGE, 401)
    highest = storm(manager.notify_era_change, pause=until_a_flow_ends(manager))
    until(lambda: manager._state == "AUTHENTICATED", "the end of the last flow")
    assert manager._pending_era_number == highest
    with pytest.raises(auth.AuthError) as caught:
        manager.get_token()
    assert reason(caught.value) == "unauthorized" and caught.value is manager._auth_error
    assert flows.most == 1
    assert len(flows.threads) > 20
    census.settle(1)


def test_no_token_of_an_older_era_during_a_storm(
    make_manager: Callable[..., Any], rising: RisingService
) -> None:
    manager = make_manager(service=rising)
    manager.authenticate()
    announced = 1
    over = threading.Event()
    late: list[tuple[int, int]] = []

    def ask() -> int:
        served = 0
        while not over.is_set():
            required = announced
            try:
                era = era_of(manager.get_token())
            except auth.AuthError as error:
                assert error.reason in ("era_change_pending", "era_mismatch")
                continue
            served += 1
            if era < required:
                late.append((era, required))
        return served

    askers = [Worker(ask) for _ in range(3)]
    for era in range(2, 250):
        rising.reach(era)
        manager.notify_era_change(era)
        announced = era
        if era % 8 == 0:
            until(lambda: manager._state == "AUTHENTICATED", "the end of the flow")
    over.set()
    until(lambda: manager._state == "AUTHENTICATED", "the end of the last flow")
    assert sum(asker.result() for asker in askers) > 0
    assert late == []


# Refresh loops


def test_a_thousand_era_changes_and_logins_leave_one_refresh_loop(
    make_manager: Callable[..., Any], service: Service, census: ThreadCensus
) -> None:
    manager = make_manager()
    manager.authenticate()
    for era in range(1, 1001):
        service.era = era
        if era % 10 == 0:
            manager.authenticate()
        manager.notify_era_change(era)
        assert era_of(manager.get_token()) == era
        if era % 50 == 0:
            census.settle(1, "refresh loops in steady state")
            assert census.newcomers() == [manager._refresh_thread]
    assert len(service.tokens) == 1 + 1000 + 100


def test_logins_and_announcements_at_once_leave_one_refresh_loop(
    make_manager: Callable[..., Any], rising: RisingService, census: ThreadCensus
) -> None:
    manager = make_manager(service=rising)
    manager.authenticate()

    def log_in() -> None:
        for _ in range(25):
            try:
                manager.authenticate()
            except auth.AuthError as error:
                assert error.reason == "era_mismatch"

    def announce(first: int) -> None:
        for era in range(first, first + 25):
            rising.reach(era)
            manager.notify_era_change(era)

    callers = [Worker(log_in) for _ in range(4)] + [Worker(announce, 100 * number + 1) for number in range(4)]
    for caller in callers:
        caller.result()
    until(lambda: manager._state == "AUTHENTICATED", "the end of the last flow")
    manager.authenticate()
    census.settle(1, "refresh loops in steady state")
    assert census.newcomers() == [manager._refresh_thread]
    assert manager._refresh_thread.is_alive()


@pytest.mark.parametrize("change", ["login", "era"])
def test_one_refresh_loop_on_the_machines_clock(
    make_manager: Callable[..., Any], service: Service, census: ThreadCensus, change: str
) -> None:
    # In that case a loop sleeps for hours, and a superseded one must not do so.
    manager = make_manager(default_clock=True)
    manager.authenticate()
    for era in range(1, 21):
        if change == "login":
            manager.authenticate()
        else:
            service.era = era
            manager.notify_era_change(era)
            assert era_of(manager.get_token()) == era
    census.settle(1, "refresh loops in steady state", timeout=3.0)
    assert census.newcomers() == [manager._refresh_thread]


def test_one_refresh_at_each_refresh_point(clock: HandClock, service: Service, census: ThreadCensus) -> None:
    manager = build(service, clock)
    for _ in range(10):
        manager.authenticate()
    census.settle(1)
    for renewal in range(1, 21):
        clock.now = manager._refresh_at
        until(lambda renewal=renewal: len(service.tokens) == 10 + renewal, "the renewal")  # type: ignore[misc]
        until(lambda: manager._state == "AUTHENTICATED", "the stored renewal")
        census.settle(1)
    assert len(service.tokens) == 30
    manager.close()

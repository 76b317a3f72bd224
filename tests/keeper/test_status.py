"""`status()`: every state by name, and consistent numbers."""

from __future__ import annotations

import dataclasses
import threading
from collections.abc import Callable
from typing import Any

import pytest

from tests.shared.clocks import HandClock
from tests.shared.threads import join_all, until

from .support.driving import pass_time, settle, to_next_attempt
from .support.faults import FINAL, away
from .support.service import LIFETIME, Service

FIELDS = {
    "state", "expiry", "seconds_left", "last_success", "last_failure", "reason", "failures", "next_attempt"
}  # fmt: skip
STATES = {
    "not started", "logging in", "good", "renewing", "retrying", "expired", "stopped", "closed"
}  # fmt: skip


def facts(status: Any) -> dict[str, Any]:
    return {name: getattr(status, name) for name in FIELDS - {"next_attempt"}}


def test_before_the_start(make_keeper: Callable[..., Any]) -> None:
    status = make_keeper().status()
    assert facts(status) == {
        "state": "not started",
        "expiry": None,
        "seconds_left": 0.0,
        "last_success": None,
        "last_failure": None,
        "reason": None,
        "failures": 0,
    }
    assert status.next_attempt is None


def test_during_the_first_login(make_keeper: Callable[..., Any], service: Service) -> None:
    gate = service.hold()
    keeper = make_keeper()
    keeper.start(wait=False)
    gate.reached()
    status = keeper.status()
    assert (status.state, status.expiry, status.last_success) == ("logging in", None, None)


def test_a_good_token(keeper: Any, clock: HandClock) -> None:
    began = clock.now
    clock.now += 1000.0
    assert facts(keeper.status()) == {
        "state": "good",
        "expiry": began + LIFETIME,
        "seconds_left": LIFETIME - 1000.0,
        "last_success": began,
        "last_failure": None,
        "reason": None,
        "failures": 0,
    }
    assert began + 0.57 * LIFETIME <= keeper.status().next_attempt <= began + 0.63 * LIFETIME


def test_a_renewal(keeper: Any, service: Service, clock: HandClock) -> None:
    gate = service.hold()
    clock.now += 0.63 * LIFETIME + 1
    gate.reached()
    status = keeper.status()
    assert status.state == "renewing"
    assert status.seconds_left == status.expiry - clock.now > 0


def test_failures_while_the_token_is_good(keeper: Any, service: Service, clock: HandClock) -> None:
    began = clock.now
    service.fault = away()
    pass_time(keeper, clock, 0.63 * LIFETIME + 1)
    for failures in (1, 2, 3):
        status = keeper.status()
        assert facts(status) == {
            "state": "retrying",
            "expiry": began + LIFETIME,
            "seconds_left": began + LIFETIME - clock.now,
            "last_success": began,
            "last_failure": clock.now,
            "reason": "Server unreachable after 3 attempts",
            "failures": failures,
        }
        assert status.next_attempt > clock.now
        to_next_attempt(keeper, clock)
    service.heal()
    failed_at = clock.now
    to_next_attempt(keeper, clock)
    status = keeper.status()
    assert (status.state, status.failures) == ("good", 0)
    assert (status.last_success, status.last_failure) == (clock.now, failed_at)


def test_an_expired_token(keeper: Any, service: Service, clock: HandClock) -> None:
    service.fault = away()
    pass_time(keeper, clock, LIFETIME)
    status = keeper.status()
    assert (status.state, status.seconds_left, status.failures) == ("expired", 0.0, 1)
    assert status.next_attempt > clock.now
    clock.now += LIFETIME
    assert keeper.status().seconds_left == 0.0


def test_a_token_that_an_era_has_ended_has_nothing_left(keeper: Any, service: Service) -> None:
    gate = service.hold()
    keeper.notify_era_change(2)
    gate.reached()
    status = keeper.status()
    assert status.state != "good"
    assert status.seconds_left == 0.0


def test_a_stop(keeper: Any, service: Service, clock: HandClock) -> None:
    service.fault = FINAL["verify 401"][0]
    pass_time(keeper, clock, 0.63 * LIFETIME + 1)
    status = keeper.status()
    assert (status.state, status.reason, status.next_attempt) == ("stopped", "signature_mismatch", None)
    assert status.seconds_left > 0


def test_the_end(keeper: Any) -> None:
    keeper.close()
    status = keeper.status()
    assert (status.state, status.next_attempt) == ("closed", None)


def test_a_fleet_tells_the_worst_of_its_wallets(
    make_keeper: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    keeper = make_keeper(4)
    assert keeper.status().state == "not started"
    keeper.start()
    assert keeper.status().state == "good"
    one, other, *_ = keeper
    began = clock.now
    service.wallet_faults = {one: away()}
    pass_time(keeper, clock, 0.63 * LIFETIME + 1)
    status = keeper.status()
    assert status.state == "retrying"
    assert status.failures == 1
    assert status.expiry == began + LIFETIME
    assert status.seconds_left == began + LIFETIME - clock.now
    assert status.reason == "Server unreachable after 3 attempts"
    assert status.wallets[one].state == "retrying"
    assert status.wallets[other].state == "good"
    service.wallet_faults[other] = FINAL["verify 401"][0]
    pass_time(keeper, clock, 0.63 * LIFETIME + 1)
    assert keeper.status().wallets[one].state == "expired"
    assert keeper.status().wallets[other].state == "stopped"
    assert keeper.status().state in ("stopped", "expired")


def test_its_wallets_are_told_by_address(make_keeper: Callable[..., Any]) -> None:
    keeper = make_keeper(3)
    status = keeper.status()
    assert set(status.wallets) == set(keeper)
    for one in keeper:
        assert status.wallets[one] == keeper[one].status()
        assert status.wallets[one].address == one
    with pytest.raises(TypeError):
        status.wallets[one] = status.wallets[one]


def test_it_is_frozen(keeper: Any, address: str) -> None:
    for status in (keeper.status(), keeper[address].status()):
        assert {field.name for field in dataclasses.fields(status)} >= FIELDS
        with pytest.raises(dataclasses.FrozenInstanceError):
            status.state = "good"


def test_it_shows_no_secret(keeper: Any, service: Service) -> None:
    # The canary examines the text of a failing test; here that is intended.
    assert service.granted[0].token not in repr(keeper.status())


def test_it_never_raises_and_never_waits(
    make_keeper: Callable[..., Any], service: Service, clock: Any
) -> None:
    seen: set[str] = set()
    over = threading.Event()
    current: list[Any] = [make_keeper(3)]

    def look() -> None:
        while not over.is_set():
            keeper = current[0]
            seen.add(keeper.status().state)
            for one in keeper:
                seen.add(keeper[one].status().state)

    threads = [threading.Thread(target=look) for _ in range(3)]
    escaped: list[Any] = []
    threading.excepthook, before = lambda told: escaped.append(told.exc_value), threading.excepthook
    try:
        for thread in threads:
            thread.start()
        for era in range(1, 30):
            keeper = current[0]
            service.era = era
            keeper.notify_era_change(era)
            keeper.start()
            clock.now += LIFETIME
            settle(keeper, clock)
            keeper.close()
            current[0] = make_keeper(3)
        over.set()
        join_all(threads)
    finally:
        over.set()
        threading.excepthook = before
    assert escaped == []
    assert seen <= STATES
    assert {"good", "closed"} <= seen


def test_a_clock_that_raises_is_no_reason_to_raise(keeper: Any, clock: HandClock) -> None:
    clock.error = ZeroDivisionError("the clock")
    try:
        status = keeper.status()
        assert status.wallets
    finally:
        clock.error = None


def test_a_login_that_is_held_does_not_hold_it(keeper: Any, service: Service, clock: HandClock) -> None:
    gate = service.hold()
    clock.now += LIFETIME
    gate.reached()
    until(lambda: keeper.status().state in STATES, "a status", timeout=2.0)

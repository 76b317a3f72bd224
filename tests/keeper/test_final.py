"""A permanent error stops a wallet, with an error in the log; its valid token is served until it expires."""

from __future__ import annotations

import logging
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tessaline.errors import FINAL_REASONS
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until

from .support.driving import Heard, next_attempt, pass_time, to_next_attempt
from .support.faults import FINAL, FINAL_AT_FIRST
from .support.service import LIFETIME, Service
from .support.wallets import manager

RENEWAL = 0.63 * LIFETIME + 1


def other_secret(service: Service, mine: Any) -> None:
    service.secret = b"other secret".ljust(32, b".")


def other_wallet(service: Service, mine: Any) -> None:
    service.subject = "0x" + 20 * "ab"


def odd_state(service: Service, mine: Any) -> None:
    mine._state = "ASLEEP"


def closed_by_somebody(service: Service, mine: Any) -> None:
    mine.close()


# What is wrong from the first renewal on, and the error's text.
STOPS: dict[str, tuple[Callable[[Service, Any], None], str]] = {
    name: (lambda service, mine, fault=fault: setattr(service, "fault", fault), text)
    for name, (fault, text) in FINAL.items()
} | {
    "another secret": (other_secret, "wallet_secret_changed"),
    "another wallet": (other_wallet, "wallet_mismatch"),
    "an odd state": (odd_state, "unexpected_auth_state"),
    "closed by somebody": (closed_by_somebody, "manager_closed"),
}


def test_every_final_reason_is_among_them() -> None:
    assert {text for _, text in STOPS.values()} >= FINAL_REASONS


@pytest.mark.parametrize("name", STOPS)
def test_a_renewal_that_meets_it_stops(
    name: str,
    make_keeper: Callable[..., Any],
    service: Service,
    clock: HandClock,
    heard: Heard,
    caplog: pytest.LogCaptureFixture,
) -> None:
    caplog.set_level(logging.DEBUG, "tessaline.keeper")
    mine = manager(service, clock)
    keeper = make_keeper(managers=mine)
    keeper.start()
    expiry = keeper.status().expiry
    set_off, text = STOPS[name]
    set_off(service, mine)
    clock.now += RENEWAL
    until(lambda: keeper.status().state == "stopped", "the stop")
    status = keeper.status()
    assert (status.reason, status.next_attempt, status.expiry) == (text, None, expiry)
    assert status.last_failure == clock.now
    event = heard.wait_for("stopped")
    assert (event.level, event.reason, event.next_attempt) == (logging.ERROR, text, None)
    assert text in event.message
    errors = [record for record in caplog.records if record.levelno == logging.ERROR]
    assert [record.tessaline_event for record in errors] == [event]  # type: ignore[attr-defined]
    # The copy stays valid until its own expiry.
    asked = len(service.asked)
    clock.now = expiry - 0.5
    assert keeper.get_token(timeout=0) == service.granted[0].token
    clock.now = expiry
    worker = Worker(keeper.get_token, timeout=None)
    assert str(worker.failure()) == text
    clock.now += 3 * LIFETIME
    assert str(Worker(keeper.get_token, timeout=None).failure()) == text
    assert len(service.asked) == asked
    assert len(heard.of("stopped")) == 1


@pytest.mark.parametrize("name", FINAL_AT_FIRST)
def test_at_first_these_stop_as_well(name: str, make_keeper: Callable[..., Any], service: Service) -> None:
    service.fault, kind = FINAL_AT_FIRST[name]
    keeper = make_keeper()
    starting = Worker(keeper.start)
    assert type(starting.failure()) is kind
    assert keeper.status().state == "stopped"
    assert type(Worker(keeper.get_token, timeout=None).failure()) is kind


@pytest.mark.parametrize("name", FINAL_AT_FIRST)
def test_later_these_are_tried_again(
    name: str,
    keeper: Any,
    service: Service,
    clock: HandClock,
    heard: Heard,
    caplog: pytest.LogCaptureFixture,
) -> None:
    service.fault, _ = FINAL_AT_FIRST[name]
    pass_time(keeper, clock, RENEWAL)
    assert keeper.status().state == "retrying"
    # Worse than an outage, and reported as such.
    event = heard.wait_for("attempt failed")
    assert event.level == logging.ERROR
    assert next_attempt(keeper) > clock.now
    to_next_attempt(keeper, clock)
    service.heal()
    to_next_attempt(keeper, clock)
    assert keeper.get_token(timeout=0) == service.granted[1].token
    assert heard.of("stopped") == []


def test_a_stop_wakes_those_who_wait(keeper: Any, service: Service, clock: HandClock) -> None:
    gate = service.hold()
    clock.now += LIFETIME
    gate.reached()
    waiting = [Worker(keeper.get_token, timeout=None) for _ in range(5)]
    service.fault = FINAL["verify 401"][0]
    service.let_go()
    for one in waiting:
        error = one.failure()
        assert isinstance(error, auth.AuthError) and error.reason == "signature_mismatch"


def test_an_era_does_not_wake_what_has_stopped(keeper: Any, service: Service, clock: HandClock) -> None:
    service.fault = FINAL["register 400"][0]
    pass_time(keeper, clock, RENEWAL)
    asked = len(service.asked)
    keeper.notify_era_change(2)
    error = Worker(keeper.get_token, timeout=None).failure()
    assert str(error) == "invalid_address"
    assert len(service.asked) == asked

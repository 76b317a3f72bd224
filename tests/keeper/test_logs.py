"""The log for operators: a line for each event, with fields, and never a secret."""

from __future__ import annotations

import logging
from collections.abc import Callable
from typing import Any

import pytest

from tests.shared.clocks import HandClock
from tests.shared.threads import until

from .support.driving import Heard, pass_time, settle, to_next_attempt
from .support.faults import FINAL, away
from .support.service import LIFETIME, Service
from .support.wallets import key

HOUR = 3600.0
RENEWAL = 0.63 * LIFETIME + 1


@pytest.fixture
def told(caplog: pytest.LogCaptureFixture) -> pytest.LogCaptureFixture:
    caplog.set_level(logging.DEBUG)
    return caplog


def live(keeper: Any, service: Service, clock: HandClock, heard: Heard) -> None:
    """Causes every event that is reported."""
    keeper.start()
    pass_time(keeper, clock, RENEWAL)
    service.era = 2
    keeper.notify_era_change(2)
    heard.wait_for("era met")
    settle(keeper, clock)
    service.fault = away()
    clock.now = keeper.status().expiry - HOUR / 2
    heard.wait_for("running out")
    settle(keeper, clock)
    service.fault = FINAL["verify 401"][0]
    to_next_attempt(keeper, clock)
    heard.wait_for("stopped")


LEVELS = {
    "logged in": logging.INFO,
    "renewed": logging.INFO,
    "era met": logging.INFO,
    "attempt failed": logging.WARNING,
    "running out": logging.ERROR,
    "stopped": logging.ERROR,
}


def own(told: pytest.LogCaptureFixture) -> list[Any]:
    return [record for record in told.records if record.name == "tessaline.keeper"]


def test_each_event_is_a_record(
    make_keeper: Callable[..., Any],
    service: Service,
    clock: HandClock,
    heard: Heard,
    told: pytest.LogCaptureFixture,
) -> None:
    keeper = make_keeper()
    live(keeper, service, clock, heard)
    until(lambda: len(own(told)) == len(heard.events), "as many records as events")
    assert set(heard.kinds()) == set(LEVELS)
    assert [record.tessaline_event for record in own(told)] == heard.events
    for record in own(told):
        event = record.tessaline_event
        assert record.levelno == event.level == LEVELS[event.kind]
        assert record.tessaline_address == event.address
        assert record.tessaline_reason == event.reason
        assert event.address in record.getMessage()
        assert event.message in record.getMessage()


def test_words_say_what_an_operator_wants_to_know(
    make_keeper: Callable[..., Any],
    service: Service,
    clock: HandClock,
    heard: Heard,
    told: pytest.LogCaptureFixture,
) -> None:
    keeper = make_keeper()
    live(keeper, service, clock, heard)
    # The lifetime of the new one in hours; the reason, and hours left.
    assert "24" in heard.of("renewed")[0].message
    failed = heard.of("attempt failed")[0]
    assert "Server unreachable after 3 attempts" in failed.message
    assert "signature_mismatch" in heard.of("stopped")[0].message


def test_no_text_holds_a_secret(
    make_keeper: Callable[..., Any],
    service: Service,
    clock: HandClock,
    heard: Heard,
    told: pytest.LogCaptureFixture,
) -> None:
    keeper = make_keeper()
    live(keeper, service, clock, heard)
    texts = [repr(event) for event in heard.events]
    texts += [str(vars(record)) for record in told.records]
    texts += [repr(keeper), str(keeper), repr(keeper.status())]
    texts += [repr(keeper[one]) + repr(keeper[one].status()) for one in keeper]
    secrets = [granted.token for granted in service.granted]
    secrets += [part for token in secrets for part in token.split(".")[1:]]
    for secret in [*secrets, key(0)]:
        assert not any(secret in text for text in texts)


def test_nothing_is_told_per_call(
    keeper: Any, address: str, service: Service, clock: HandClock, told: pytest.LogCaptureFixture
) -> None:
    before = len(told.records)
    for _ in range(100):
        keeper.get_token()
        keeper.status()
        keeper[address].get_token()
        keeper.report_refused("nobody's token")
    assert len(told.records) == before


def test_one_record_for_one_failed_attempt(
    keeper: Any, service: Service, clock: HandClock, told: pytest.LogCaptureFixture
) -> None:
    service.fault = away()
    pass_time(keeper, clock, RENEWAL)
    for _ in range(9):
        to_next_attempt(keeper, clock)
    until(lambda: len([record for record in own(told) if record.levelno == logging.WARNING]) == 10, "records")


def test_an_era_is_told_once_for_each_wallet(
    make_keeper: Callable[..., Any], service: Service, heard: Heard, clock: HandClock
) -> None:
    keeper = make_keeper(5)
    keeper.start()
    service.era = 3
    keeper.notify_era_change(3)
    heard.wait_for("era met", 5)
    settle(keeper, clock)
    assert heard.kinds().count("era met") == 5

"""`on_event`: which events it gets, where it runs, and what it may do."""

from __future__ import annotations

import dataclasses
import logging
import threading
from collections.abc import Callable
from typing import Any

import pytest

from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until

from .support.driving import Heard, pass_time, settle, to_next_attempt
from .support.faults import FINAL, away
from .support.service import LIFETIME, Service

HOUR = 3600.0
RENEWAL = 0.63 * LIFETIME + 1


def facts(event: Any, *names: str) -> tuple[Any, ...]:
    return tuple(getattr(event, name) for name in names)


def test_a_life_without_trouble(make_keeper: Callable[..., Any], clock: HandClock, heard: Heard) -> None:
    keeper = make_keeper()
    (address,) = keeper
    keeper.start()
    logged_in = heard.wait_for("logged in")
    names = ("level", "address", "at", "lasts", "reason", "failures", "era")
    assert facts(logged_in, *names[:-1]) == (logging.INFO, address, clock.now, LIFETIME, None, 0)
    pass_time(keeper, clock, RENEWAL)
    renewed = heard.wait_for("renewed")
    assert facts(renewed, *names[:-1]) == (logging.INFO, address, clock.now, LIFETIME, None, 0)
    assert renewed.next_attempt == keeper.status().next_attempt
    pass_time(keeper, clock, RENEWAL)
    heard.wait_for("renewed", 2)
    assert heard.kinds() == ["logged in", "renewed", "renewed"]


def test_failures_and_the_end_of_them(keeper: Any, service: Service, clock: HandClock, heard: Heard) -> None:
    service.fault = away()
    expiry = keeper.status().expiry
    pass_time(keeper, clock, RENEWAL)
    for failures in (1, 2, 3):
        event = heard.wait_for("attempt failed", failures)
        assert facts(event, "level", "failures", "at", "lasts") == (
            logging.WARNING,
            failures,
            clock.now,
            None,
        )
        assert "Server unreachable after 3 attempts" in event.reason
        assert event.seconds_left == expiry - clock.now
        assert event.next_attempt == keeper.status().next_attempt
        to_next_attempt(keeper, clock)
    service.heal()
    to_next_attempt(keeper, clock)
    heard.wait_for("renewed")


def test_an_hour_left_is_an_error_told_once(
    keeper: Any, service: Service, clock: HandClock, heard: Heard
) -> None:
    service.fault = away()
    expiry = keeper.status().expiry
    pass_time(keeper, clock, expiry - HOUR - 60.0 - clock.now)
    assert heard.of("running out") == []
    clock.now = expiry - HOUR + 60.0
    event = heard.wait_for("running out")
    assert event.level == logging.ERROR
    assert 0 < event.seconds_left < HOUR
    settle(keeper, clock)
    # Whatever the jitter, not until the token expires.
    for _ in range(15):
        to_next_attempt(keeper, clock)
    assert len(heard.of("running out")) == 1
    service.heal()
    pass_time(keeper, clock, HOUR)
    # It is reported for each token.
    service.fault = away()
    clock.now = keeper.status().expiry - HOUR / 2
    heard.wait_for("running out", 2)


def test_a_token_that_dies_between_two_looks_is_told_too(
    keeper: Any, service: Service, clock: HandClock, heard: Heard
) -> None:
    service.fault = away()
    clock.now += 2 * LIFETIME
    event = heard.wait_for("running out")
    assert (event.level, event.seconds_left) == (logging.ERROR, 0.0)


def test_an_era(keeper: Any, service: Service, clock: HandClock, heard: Heard) -> None:
    service.era = 9
    keeper.notify_era_change(9)
    event = heard.wait_for("era met")
    assert facts(event, "level", "era", "failures", "at") == (logging.INFO, 9, 0, clock.now)


def test_events_are_frozen(keeper: Any, heard: Heard) -> None:
    event = heard.wait_for("logged in")
    with pytest.raises(dataclasses.FrozenInstanceError):
        event.kind = "stopped"  # type: ignore[misc]
    names = {field.name for field in dataclasses.fields(event)}
    assert names == {
        "kind", "level", "message", "address", "at", "seconds_left", "lasts", "reason", "failures",
        "next_attempt", "era",
    }  # fmt: skip


def test_every_wallet_has_its_own(make_keeper: Callable[..., Any], heard: Heard) -> None:
    keeper = make_keeper(10)
    keeper.start()
    until(lambda: len(heard.of("logged in")) == 10, "all events")
    assert sorted(event.address for event in heard.events) == sorted(keeper)


@pytest.mark.parametrize(
    "kind", ["logged in", "renewed", "era met", "attempt failed", "running out", "stopped"]
)
def test_it_may_call_everything(
    kind: str, make_keeper: Callable[..., Any], service: Service, clock: HandClock, heard: Heard
) -> None:
    keeper = make_keeper(2)
    outcomes: list[tuple[str, BaseException | None]] = []

    def in_another_thread(call: Callable[..., Any], *args: Any, **options: Any) -> None:
        worker = Worker(call, *args, **options).finish()
        outcomes.append((str(getattr(call, "__name__", call)), worker.error))

    def call_all(event: Any) -> None:
        if event.kind != kind or outcomes:
            return
        # From here, and from another thread while this one is in here: neither finds a lock held.
        for run in (lambda call, *args, **options: call(*args, **options), in_another_thread):
            for one in keeper:
                try:
                    run(keeper[one].get_token, timeout=0)
                except Exception as error:
                    outcomes.append(("get_token", error))
                run(keeper[one].status)
                run(keeper[one].report_refused, "nobody's token")
            run(keeper.status)
            run(keeper.notify_era_change, 1)
            run(keeper.start, wait=False)
            run(len, keeper)
        outcomes.append(("the end", None))

    heard.then = call_all
    keeper.start(wait=False)
    heard.wait_for("logged in", 2)
    if kind in ("attempt failed", "running out"):
        service.fault = away()
    if kind == "stopped":
        service.fault = FINAL["verify 401"][0]
    if kind == "era met":
        service.era = 2
        keeper.notify_era_change(2)
    elif kind != "logged in":
        clock.now += LIFETIME - 60.0
    heard.wait_for(kind)
    until(lambda: ("the end", None) in outcomes, "the end of the calls")
    assert keeper.status().state != "closed"


def test_what_it_raises_is_logged_once_and_changes_nothing(
    make_keeper: Callable[..., Any],
    service: Service,
    clock: HandClock,
    heard: Heard,
    caplog: pytest.LogCaptureFixture,
) -> None:
    caplog.set_level(logging.DEBUG, "tessaline.keeper")

    def complain(event: Any) -> None:
        raise ZeroDivisionError("the host's own trouble")

    heard.then = complain
    keeper = make_keeper(3)
    keeper.start()
    for _ in range(3):
        pass_time(keeper, clock, RENEWAL)
    assert len(service.granted) == 12
    assert [keeper[one].get_token(timeout=0) for one in keeper] == [service.newest(one) for one in keeper]
    until(lambda: len(heard.events) == 12, "all events")
    told = [
        record
        for record in caplog.records
        if "the host's own trouble" in record.getMessage()
        or (record.exc_info and isinstance(record.exc_info[1], ZeroDivisionError))
    ]
    assert len(told) == 1
    assert told[0].levelno >= logging.WARNING


@pytest.mark.parametrize("error", [KeyboardInterrupt(), SystemExit(3)], ids=repr)
def test_even_if_it_wants_to_leave(
    error: BaseException,
    make_keeper: Callable[..., Any],
    clock: HandClock,
    service: Service,
    heard: Heard,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    # An exception that ends a thread may end that of the login, after it has done its work.
    monkeypatch.setattr(threading, "excepthook", lambda told: None)

    def leave(event: Any) -> None:
        raise error

    heard.then = leave
    keeper = make_keeper()
    keeper.start()
    pass_time(keeper, clock, RENEWAL)
    assert keeper.get_token(timeout=0) == service.granted[1].token


def test_one_that_takes_its_time_keeps_no_token_back(
    make_keeper: Callable[..., Any], service: Service, heard: Heard
) -> None:
    slow, over = threading.Event(), threading.Event()

    def dawdle(event: Any) -> None:
        slow.set()
        assert over.wait(20)

    heard.then = dawdle
    keeper = make_keeper()
    try:
        keeper.start(wait=False)
        assert keeper.get_token() == service.granted[0].token
        assert slow.wait(20)
        assert keeper.get_token(timeout=0) == service.granted[0].token
        assert keeper.status().state == "good"
    finally:
        over.set()


def test_without_one_all_goes_as_well(make_keeper: Callable[..., Any], clock: HandClock) -> None:
    keeper = make_keeper(on_event=None)
    keeper.start()
    pass_time(keeper, clock, RENEWAL)
    assert keeper.status().state == "good"

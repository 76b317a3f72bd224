"""An attempt may raise odd errors, and several callers get them: each gets its own copy."""

from __future__ import annotations

import gc
import http.client
import logging
import traceback
import weakref
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until

from .support.driving import Heard, pass_time, to_next_attempt
from .support.faults import FINAL, away, raises
from .support.service import LIFETIME, Service

RENEWAL = 0.63 * LIFETIME + 1


class Mute(Exception):
    def __str__(self) -> str:
        raise ValueError("no text")


def test_one_without_words_is_a_failure_like_others(
    keeper: Any, service: Service, clock: HandClock, heard: Heard
) -> None:
    service.fault = raises(Mute)
    pass_time(keeper, clock, RENEWAL)
    event = heard.wait_for("attempt failed")
    assert (event.failures, event.reason) == (1, "Mute")
    assert "Mute" in event.message
    assert clock.now < keeper.status().next_attempt <= clock.now + 2.0
    assert len(service.attempts()) == 2
    service.heal()
    to_next_attempt(keeper, clock)
    assert keeper.get_token(timeout=0) == service.granted[1].token


ERRORS = {
    "no memory": (raises(MemoryError), MemoryError),
    "away": (away(), auth.NetworkError),
    "a proxy refuses": (raises(lambda: OSError("the proxy refuses")), OSError),
    "verify 401": (FINAL["verify 401"][0], auth.AuthError),
    "register 403": (FINAL["invite_invalid"][0], auth.RegistrationError),
}


class Body:
    """A variable of a request."""


@pytest.mark.parametrize("name", ERRORS)
def test_who_is_raised_an_error_finds_nothing_of_another_caller(
    name: str, keeper: Any, service: Service, clock: HandClock
) -> None:
    service.fault, kind = ERRORS[name]
    clock.now += LIFETIME
    until(lambda: keeper.status().failures == 1, "a failure")
    bodies: list[weakref.ref[Body]] = []

    def ask() -> Any:
        body = Body()
        bodies.append(weakref.ref(body))
        try:
            raise KeyError("what one was doing")
        except KeyError:
            with pytest.raises(kind) as caught:
                keeper.get_token(timeout=0)
        caught.value.add_note("a note of its own")
        return caught.value

    first, second = ask(), ask()
    assert first is not second
    assert (type(first), first.args) == (type(second), second.args)
    for error in (first, second):
        assert error.__notes__.count("a note of its own") == 1
        assert [frame.f_code.co_name for frame, _ in traceback.walk_tb(error.__traceback__)].count("ask") == 1
    # Nor does the keeper refer to the frames of callers.
    del first, second, error
    gc.collect()
    assert [body() for body in bodies] == [None, None]
    with pytest.raises(kind) as third:
        keeper.get_token(timeout=0)
    told = "".join(traceback.format_exception(third.value))
    assert "what one was doing" not in told
    assert "a note of its own" not in told


def test_a_start_that_fails_tells_of_the_wallet_once(
    make_keeper: Callable[..., Any], service: Service
) -> None:
    service.fault = FINAL["verify 401"][0]
    keeper = make_keeper()
    (address,) = keeper
    for _ in range(3):
        error = Worker(keeper.start).failure()
        assert sum(address in note for note in error.__notes__) == 1
    with pytest.raises(auth.AuthError) as caught:
        keeper.get_token(timeout=0)
    assert not any(address in note for note in getattr(caught.value, "__notes__", ()))


def forged() -> http.client.BadStatusLine:
    error = http.client.BadStatusLine("SSH\r\nCRITICAL root: forged \x1b[31m\u2028line")
    error.add_note("note\nCRITICAL root: forged")
    return error


def test_a_server_writes_no_line_of_the_log(
    keeper: Any, service: Service, clock: HandClock, heard: Heard, caplog: pytest.LogCaptureFixture
) -> None:
    caplog.set_level(logging.DEBUG, "tessaline.keeper")
    service.fault = raises(forged)
    clock.now += LIFETIME
    heard.wait_for("attempt failed")
    heard.wait_for("running out")
    until(lambda: len(caplog.records) >= 2, "the records")
    lines = [record.getMessage() for record in caplog.records]
    lines += [event.message for event in heard.events]
    lines += [heard.of("attempt failed")[0].reason, keeper.status().reason]
    assert sum("CRITICAL root: forged" in line for line in lines) >= 6
    assert all(line.isprintable() for line in lines)

"""The display name over real HTTP; nothing that comes of it changes the manager."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

from devserver.testing import DevServer
from tessaline import auth
from tests.shared.threads import DEADLINE, Worker, until, waiters

from .support import Harness, reason_of, wire

Make = Callable[..., Harness]

UNCHANGED = (
    "_state",
    "_token",
    "_token_expiry",
    "_auth_error",
    "_reauth_mode",
    "_refresh_thread",
    "_refresh_at",
)


@pytest.fixture
def one(either: DevServer, harness: Make) -> Harness:
    logged_in = harness(either)
    logged_in.manager.authenticate()
    logged_in.forget()
    return logged_in


@pytest.fixture(autouse=True)
def nothing_changes(request: pytest.FixtureRequest) -> Any:
    if "one" not in request.fixturenames:
        yield
        return
    manager = request.getfixturevalue("one").manager
    before = {name: getattr(manager, name) for name in UNCHANGED}
    yield
    assert {name: getattr(manager, name) for name in UNCHANGED} == before
    assert manager._in_transient_backoff is False


def names_sent(server: DevServer) -> int:
    return wire(server).get("display_name", 0)


@pytest.mark.parametrize("name", ["Ada", "  Ada Lovelace ", "a-b_c 1", "x" * 32])
def test_a_name_is_set(name: str, one: Harness, either: DevServer) -> None:
    answer = one.manager.set_display_name(name)
    assert answer["display_name"] == name.strip()
    assert answer["wallet_address"].lower() == one.manager.get_wallet_address()
    assert names_sent(either) == 1
    assert one.delays == []


@pytest.mark.parametrize("nothing", [None, ""])
def test_a_name_is_reset(nothing: str | None, one: Harness, either: DevServer) -> None:
    one.manager.set_display_name("Ada")
    assert one.manager.set_display_name(nothing)["display_name"] is None
    assert names_sent(either) == 2


@pytest.mark.parametrize("name", ["ab", "x" * 33, "no!", "   ", "a\nbc", "Zoë"])
def test_an_unfit_name_is_not_sent(name: str, one: Harness, either: DevServer) -> None:
    error = one.failure(one.manager.set_display_name, name)
    assert (type(error), error.args) == (ValueError, (auth._DISPLAY_NAME_ERR,))
    assert names_sent(either) == 0


def test_a_name_that_the_server_refuses(one: Harness, either: DevServer) -> None:
    either.faults("display_name", [{"kind": "status", "status": 400, "json": {"error": "taken"}}])
    error = one.failure(one.manager.set_display_name, "Ada")
    assert type(error) is auth.ProfileError
    assert vars(error) == {"reason": "validation_failed", "message": "taken"}
    assert str(error) == "validation_failed"
    assert (names_sent(either), one.delays) == (1, [])


def test_a_refusal_without_json(one: Harness, either: DevServer) -> None:
    either.faults("display_name", [{"kind": "non_json", "status": 400}])
    error = one.failure(one.manager.set_display_name, "Ada")
    assert vars(error) == {"reason": "validation_failed", "message": ""}


@pytest.mark.parametrize(
    ("headers", "seconds", "logged"),
    [
        ({"Retry-After": "7"}, 7, 0),
        ({"retry-after": "8"}, 8, 0),
        ({}, 60, 0),
        ({"Retry-After": "Wed, 21 Oct 2026 07:28:00 GMT"}, 60, 1),
    ],
)
def test_a_rate_limit_is_reported_at_once(
    headers: dict[str, str],
    seconds: int,
    logged: int,
    one: Harness,
    either: DevServer,
    caplog: pytest.LogCaptureFixture,
) -> None:
    either.faults("display_name", [{"kind": "status", "status": 429, "headers": headers}])
    error = one.failure(one.manager.set_display_name, "Ada")
    assert type(error) is auth.ProfileError
    assert vars(error) == {"reason": "rate_limited", "retry_after": seconds}
    assert (names_sent(either), one.delays) == (1, [])
    told = [record.tessaline_metadata for record in caplog.records]  # type: ignore[attr-defined]
    assert told == [{"reason": "invalid_retry_after", "scope": "profile"}] * logged


def test_a_token_of_an_era_that_is_over_is_unauthorized(one: Harness, either: DevServer) -> None:
    either.settings(era=2)
    error = one.failure(one.manager.set_display_name, "Ada")
    assert reason_of(error) == "profile_unauthorized"
    assert (names_sent(either), one.delays) == (1, [])
    either.settings(era=1)
    one.manager.set_display_name("Ada")


@pytest.mark.parametrize(
    "fault",
    [
        {"kind": "status", "status": 503},
        {"kind": "status", "status": 403},
        {"kind": "status", "status": 404},
        {"kind": "cut_body"},
    ],
    ids=["unavailable", "forbidden", "not_found", "cut_body"],
)
def test_a_passing_fault_is_made_good(fault: dict[str, Any], one: Harness, either: DevServer) -> None:
    either.faults("display_name", [{**fault, "times": 2}])
    assert one.manager.set_display_name("Ada")["display_name"] == "Ada"
    assert (names_sent(either), one.delays) == (3, [1, 2])
    either.faults("display_name", [{**fault, "times": None}])
    error = one.failure(one.manager.set_display_name, "Bob")
    assert (type(error), str(error)) == (auth.NetworkError, "Server unreachable after 3 attempts")
    assert (names_sent(either), one.delays) == (6, [1, 2, 1, 2])


@pytest.mark.parametrize(
    "fault",
    [{"kind": "empty_body"}, {"kind": "non_json"}, {"kind": "status", "status": 200, "json": ["Ada"]}],
    ids=["empty", "no_json", "a_list"],
)
@pytest.mark.parametrize(("name", "text"), [(" Ada ", "Ada"), (None, "None"), ("", "")])
def test_an_answer_that_is_no_object(
    fault: dict[str, Any], name: str | None, text: str, one: Harness, either: DevServer
) -> None:
    either.faults("display_name", [fault])
    expected = {"wallet_address": one.manager.get_wallet_address(), "display_name": text}
    assert one.manager.set_display_name(name) == expected


def test_a_manager_that_may_not(either: DevServer, harness: Make) -> None:
    fresh = harness(either)
    assert reason_of(fresh.failure(fresh.manager.set_display_name, "Ada")) == "not_authenticated"
    fresh.manager.close()
    assert reason_of(fresh.failure(fresh.manager.set_display_name, "Ada")) == "manager_closed"
    assert wire(either) == {}


def test_a_name_waits_for_a_refresh_and_goes_with_the_new_token(either: DevServer, harness: Make) -> None:
    fresh = harness(either)
    manager = fresh.manager
    manager.authenticate()
    either.faults("verify", [{"kind": "hold"}])
    either.settings(era=2)
    fresh.trigger_refresh()
    either.wait_for("verify", 2)
    event = manager._auth_event
    renamer = Worker(manager.set_display_name, "Ada")
    until(lambda: waiters(event) == 1)
    either.release()
    # The token of the first era would be refused by now.
    assert renamer.result(DEADLINE)["display_name"] == "Ada"

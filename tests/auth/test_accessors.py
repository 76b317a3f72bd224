"""Wallet secret, token expiry and wallet address."""

from __future__ import annotations

import sys
from typing import Any

import pytest

from tessaline import auth
from tests.shared.threads import Worker

from .helpers.managers import ADDRESS, build, changes, reason_of, snapshot
from .helpers.server import CHALLENGE, FakeServer

GUARDED = {"get_wallet_secret": "_wallet_secret", "get_token_expiry": "_token_expiry"}
VALUES: dict[str, Any] = {"get_wallet_secret": b"\x01" * 32, "get_token_expiry": 87400.0}


def failure(call: Any) -> str:
    with pytest.raises(auth.AuthError) as caught:
        call()
    return reason_of(caught.value)


def with_values(manager: Any, state: str) -> Any:
    manager._state = state
    for name, value in VALUES.items():
        setattr(manager, GUARDED[name], value)
    return manager


@pytest.mark.parametrize("name", GUARDED)
def test_before_authenticate_the_guarded_accessors_are_not_authenticated(manager: Any, name: str) -> None:
    assert failure(getattr(manager, name)) == "not_authenticated"


def test_before_authenticate_the_address_is_there() -> None:
    assert build().get_wallet_address() == ADDRESS


@pytest.mark.parametrize("name", GUARDED)
@pytest.mark.parametrize(
    ("state", "reason"),
    [
        ("CLOSED", "manager_closed"),
        ("UNINITIALIZED", "not_authenticated"),
        ("AUTHENTICATING", "not_authenticated"),
    ],
)
def test_guarded_accessor_is_refused_in_this_state_even_with_a_value(
    manager: Any, name: str, state: str, reason: str
) -> None:
    with_values(manager, state)
    before = snapshot(manager)
    assert failure(getattr(manager, name)) == reason
    assert changes(before, snapshot(manager)) == set()
    manager._state = "UNINITIALIZED"


@pytest.mark.parametrize("name", GUARDED)
@pytest.mark.parametrize("state", ["AUTHENTICATED", "RE_AUTHENTICATING"])
def test_guarded_accessor_returns_the_very_value_held(manager: Any, name: str, state: str) -> None:
    with_values(manager, state)
    assert getattr(manager, name)() is VALUES[name]


@pytest.mark.parametrize("name", GUARDED)
@pytest.mark.parametrize("state", ["AUTHENTICATED", "RE_AUTHENTICATING"])
def test_guarded_accessor_without_a_value_is_not_authenticated(manager: Any, name: str, state: str) -> None:
    manager._state = state
    assert failure(getattr(manager, name)) == "not_authenticated"


@pytest.mark.parametrize(
    ("name", "value"), [("get_wallet_secret", b""), ("get_token_expiry", 0), ("get_token_expiry", 0.0)]
)
def test_a_false_value_is_still_a_value(manager: Any, name: str, value: Any) -> None:
    manager._state = "AUTHENTICATED"
    setattr(manager, GUARDED[name], value)
    assert getattr(manager, name)() is value


@pytest.mark.parametrize("state", ["UNINITIALIZED", "AUTHENTICATING", "RE_AUTHENTICATING", "CLOSED", "BOGUS"])
def test_the_address_answers_in_every_state_and_takes_no_lock(manager: Any, state: str) -> None:
    manager._state = state
    with manager._lock:
        assert Worker(manager.get_wallet_address).result(5.0) == ADDRESS
    manager._state = "UNINITIALIZED"


@pytest.mark.parametrize("name", GUARDED)
def test_guarded_accessors_read_under_the_lock(manager: Any, name: str) -> None:
    with_values(manager, "AUTHENTICATED")
    with manager._lock:
        worker = Worker(getattr(manager, name))
        worker.thread.join(0.05)
        assert worker.alive
    assert worker.result(5.0) is VALUES[name]


def test_during_the_first_authentication_nothing_is_waited_for(manager: Any, server: FakeServer) -> None:
    gate = server.hold(CHALLENGE)
    runner = Worker(manager.authenticate)
    gate.reached()
    for name in GUARDED:
        assert failure(getattr(manager, name)) == "not_authenticated"
    assert manager.get_wallet_address() == ADDRESS
    gate.release()
    runner.result()


def test_during_a_re_authentication_the_previous_values_are_returned(
    logged_in: Any, server: FakeServer
) -> None:
    gate = server.hold(CHALLENGE)
    server.era = 5
    logged_in.notify_era_change(5)
    gate.reached()
    assert logged_in._state == "RE_AUTHENTICATING"
    assert logged_in.get_wallet_secret() == server.secret
    assert logged_in.get_token_expiry() == 87400.0
    gate.release()


def test_after_a_login_the_values_are_those_stored(logged_in: Any, server: FakeServer) -> None:
    assert logged_in.get_wallet_secret() == server.secret
    assert logged_in.get_token_expiry() == 87400.0
    assert logged_in.get_wallet_address() == ADDRESS


def test_after_close_only_the_address_answers(logged_in: Any) -> None:
    logged_in.close()
    for name in GUARDED:
        assert failure(getattr(logged_in, name)) == "manager_closed"
    assert logged_in.get_wallet_address() == ADDRESS


@pytest.mark.parametrize("name", [*GUARDED, "get_wallet_address"])
def test_wrong_arguments(manager: Any, name: str) -> None:
    with pytest.raises(TypeError, match=name):
        getattr(manager, name)(1)


class LockThatFailsAtItsEnd:
    def __enter__(self) -> None:
        pass

    def __exit__(self, *_: object) -> None:
        raise OSError("not released")


def test_a_lock_of_the_host_that_fails_at_its_end_is_told_to_the_host(
    manager: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    told: set[Any] = set()
    plain, failing = manager._lock, LockThatFailsAtItsEnd()

    def hear(what: Any) -> None:
        # The result is not kept: the garbage collector cannot see a cycle through it.
        told.add((type(what.exc_value), str(what.exc_value), what.object is failing))

    monkeypatch.setattr(sys, "unraisablehook", hear)
    with_values(manager, auth._AUTHENTICATED)
    manager._lock = failing
    assert manager.get_token_expiry() == VALUES["get_token_expiry"]
    manager._lock = plain
    assert told == {(OSError, "not released", True)}

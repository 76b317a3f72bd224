"""Storing a login's result, the time of the next refresh, and the guard for an announced era."""

from __future__ import annotations

import random
import threading
from collections.abc import Callable
from typing import Any

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.modules import StandIn
from tests.shared.threads import within

from .helpers.managers import ADDRESS, build, changes, reason_of, snapshot
from .helpers.tokens import issued, with_payload

PROPERTY = settings(deadline=None, database=None, derandomize=True, max_examples=150)
SECRET = bytes(range(32))


def store(manager: Any, token: Any, secret: Any = SECRET) -> Any:
    def locked() -> Any:
        with manager._lock:
            return manager._store_auth_result(token, secret)

    return within(5.0, locked)


def refusal(manager: Any, token: Any, secret: Any = SECRET) -> str:
    """The reason of the error; asserts that nothing has changed."""
    before = snapshot(manager)
    with pytest.raises(auth.AuthError) as caught:
        store(manager, token, secret)
    assert changes(before, snapshot(manager)) == set()
    return reason_of(caught.value)


@pytest.fixture
def jitter(monkeypatch: pytest.MonkeyPatch) -> dict[str, Any]:
    """Controls the jitter: `value` is what the generator returns, `asked` has the bounds of its calls."""
    control: dict[str, Any] = {"value": 0.0, "asked": []}

    def uniform(*args: Any, **kwargs: Any) -> float:
        control["asked"].append((args, kwargs))
        if isinstance(control["value"], BaseException):
            raise control["value"]
        return control["value"]

    monkeypatch.setattr(auth, "random", StandIn(random, uniform=uniform))
    return control


def test_a_result_is_stored_whole(manager: Any, jitter: dict[str, Any]) -> None:
    token = issued(ADDRESS)
    manager._state = "AUTHENTICATING"
    manager._auth_error = auth.AuthError(reason="old")
    manager._reauth_mode = "PROACTIVE"
    manager._permanent_refresh_error = True
    event = manager._auth_event = threading.Event()
    manager._refresh_event.set()
    assert store(manager, token) is None
    assert manager._token is token
    assert manager._wallet_secret is SECRET
    assert manager._auth_time == 1000.0
    assert manager._token_iat is manager._auth_time
    assert manager._token_expiry == 87400.0
    assert manager._refresh_at == 70120.0
    assert manager._state == "AUTHENTICATED"
    assert manager._permanent_refresh_error is False
    assert manager._auth_error is None
    assert manager._reauth_mode is None
    assert manager._pending_era_number is None
    assert not manager._refresh_event.is_set()
    assert manager._auth_event is event and event.is_set()
    assert manager._refresh_done.is_set()


def test_other_fields_stay_as_they_are(manager: Any) -> None:
    for name in ("_refresh_stop", "_close_event", "_refresh_pending"):
        getattr(manager, name).set()
    before = snapshot(manager)
    store(manager, issued(ADDRESS))
    assert changes(before, snapshot(manager)) == {
        "_token",
        "_wallet_secret",
        "_auth_time",
        "_token_iat",
        "_token_expiry",
        "_refresh_at",
        "_state",
        "_refresh_done is set",
    }


def test_without_an_auth_event_none_is_made(manager: Any) -> None:
    store(manager, issued(ADDRESS))
    assert manager._auth_event is None


@pytest.mark.parametrize(("value", "refresh_at"), [(0.0, 70120.0), (-0.05, 66664.0), (0.05, 73576.0)])
def test_with_the_clock_at_1000_expiry_and_refresh_time_are_as_computed_by_hand(
    manager: Any, jitter: dict[str, Any], value: float, refresh_at: float
) -> None:
    jitter["value"] = value
    store(manager, issued(ADDRESS))
    assert manager._token_expiry == 87400.0
    assert manager._refresh_at == pytest.approx(refresh_at, abs=1e-6)


def test_the_jitter_is_asked_for_within_a_twentieth(manager: Any, jitter: dict[str, Any]) -> None:
    manager._compute_refresh_at(0.0)
    assert jitter["asked"] == [((-0.05, 0.05), {})]


@pytest.mark.parametrize("value", [-0.05, -0.0123, 0.0, 1e-9, 0.049999, 0.05])
@pytest.mark.parametrize("auth_time", [0, 0.0, 1000, 1_700_000_000.25, -5.5])
def test_refresh_time_is_the_formula(
    manager: Any, jitter: dict[str, Any], value: float, auth_time: float
) -> None:
    jitter["value"] = value
    assert manager._compute_refresh_at(auth_time) == auth_time + (86400 * 0.8) * (1 + value)


def test_refresh_times_lie_between_18_24_and_20_16_hours_and_spread(manager: Any) -> None:
    times = [manager._compute_refresh_at(0.0) for _ in range(500)]
    assert 65664.0 <= min(times) < 67000.0
    assert 71500.0 < max(times) <= 72576.0
    assert len(set(times)) > 450


def test_lifetime_and_ratio_are_read_from_the_module(
    manager: Any, jitter: dict[str, Any], monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(auth, "_TOKEN_LIFETIME", 200)
    monkeypatch.setattr(auth, "_REFRESH_RATIO", 0.5)
    store(manager, issued(ADDRESS))
    assert manager._token_expiry == 1200.0
    assert manager._refresh_at == 1100.0


def test_token_claims_are_never_used_for_timing(manager: Any, jitter: dict[str, Any]) -> None:
    store(manager, issued(ADDRESS, exp=5, iat=1, nbf=99999999999))
    assert manager._token_expiry == 87400.0
    assert manager._token_iat == 1000.0


def test_time_comes_from_get_time_and_refresh_time_from_compute_refresh_at(manager: Any) -> None:
    asked: list[Any] = []
    now = 5000.0
    manager._get_time = lambda: now
    manager._compute_refresh_at = lambda auth_time: asked.append(auth_time) or "at some time"
    store(manager, issued(ADDRESS))
    assert manager._auth_time is now
    assert manager._token_expiry == 91400.0
    assert manager._refresh_at == "at some time"
    assert asked == [now]


# Subject


def test_a_token_of_another_subject_is_refused(manager: Any) -> None:
    assert refusal(manager, issued("0x" + "1" * 40)) == "wallet_mismatch"


@pytest.mark.parametrize("token", ["", "no token", None, b"a.b.c", with_payload({"era_number": 5})])
def test_an_unreadable_token_is_refused(manager: Any, token: Any) -> None:
    assert refusal(manager, token) == "wallet_mismatch"


def test_a_subject_in_checksum_case_is_stored(manager: Any) -> None:
    token = issued("0x2c7536E3605D9C16a7a3D7b1898e529396a65c23")
    store(manager, token)
    assert manager._token == token


def test_the_subject_is_compared_with_the_address_field(manager: Any) -> None:
    manager._wallet_address = "0x" + "1" * 40
    assert refusal(manager, issued(ADDRESS)) == "wallet_mismatch"
    store(manager, issued("0x" + "1" * 40))


# Wallet secret


def test_the_first_secret_is_accepted_whatever_it_is(make_manager: Callable[..., Any]) -> None:
    for secret in (b"", b"x", bytes(1000)):
        manager = make_manager()
        store(manager, issued(ADDRESS), secret)
        assert manager._wallet_secret == secret


def test_another_secret_is_wallet_secret_changed_and_keeps_the_old_token(manager: Any) -> None:
    old = issued(ADDRESS, jti="old")
    store(manager, old)
    assert refusal(manager, issued(ADDRESS, jti="new"), b"other") == "wallet_secret_changed"
    assert manager._token is old
    assert manager._wallet_secret == SECRET


def test_an_empty_secret_held_is_a_secret_held(manager: Any) -> None:
    store(manager, issued(ADDRESS), b"")
    assert refusal(manager, issued(ADDRESS), b"x") == "wallet_secret_changed"


def test_an_equal_secret_in_another_object_is_accepted(manager: Any) -> None:
    store(manager, issued(ADDRESS))
    again = bytes(bytearray(SECRET))
    store(manager, issued(ADDRESS), again)
    assert manager._wallet_secret is again


@PROPERTY
@given(st.binary(max_size=40), st.binary(max_size=40))
def test_the_second_secret_must_be_the_same_bytes(first: bytes, second: bytes) -> None:
    manager = build()
    store(manager, issued(ADDRESS), first)
    if first == second:
        store(manager, issued(ADDRESS), second)
    else:
        assert refusal(manager, issued(ADDRESS), second) == "wallet_secret_changed"


# Era


@pytest.mark.parametrize("era", [None, 4, 0, -5, True, "4"])
def test_pending_era_5_refuses_a_token_without_era_or_of_an_older_one(manager: Any, era: Any) -> None:
    manager._pending_era_number = 5
    assert refusal(manager, issued(ADDRESS, era)) == "era_mismatch"
    assert manager._pending_era_number == 5


@pytest.mark.parametrize("era", [5, 6, "5", 5.9])
def test_pending_era_5_is_satisfied_by_a_token_of_era_5_or_6(manager: Any, era: Any) -> None:
    manager._pending_era_number = 5
    token = issued(ADDRESS, era)
    store(manager, token)
    assert manager._token is token
    assert manager._pending_era_number is None


def test_pending_era_refuses_a_malformed_era_claim(manager: Any) -> None:
    manager._pending_era_number = 5
    assert refusal(manager, issued(ADDRESS, "abc")) == "era_mismatch"


def test_without_a_pending_era_the_claim_is_not_looked_at(manager: Any) -> None:
    token = issued(ADDRESS, "abc")
    store(manager, token)
    assert manager._token is token


# Order of checks


def test_the_subject_is_checked_before_the_secret_and_the_secret_before_the_era(manager: Any) -> None:
    store(manager, issued(ADDRESS))
    manager._pending_era_number = 5
    assert refusal(manager, issued("0x1"), b"other") == "wallet_mismatch"
    assert refusal(manager, issued(ADDRESS, 1), b"other") == "wallet_secret_changed"
    assert refusal(manager, issued(ADDRESS, 1)) == "era_mismatch"


def test_the_clock_is_not_read_for_a_refused_result(manager: Any, clock: HandClock) -> None:
    refusal(manager, issued("0x1"))
    assert clock.readings == 0


@pytest.mark.parametrize("held", [False, True], ids=["first login", "token held"])
@pytest.mark.parametrize("error", [RuntimeError("no time"), KeyboardInterrupt()], ids=repr)
def test_a_raising_clock_leaves_the_manager_as_it_was(
    manager: Any, clock: HandClock, held: bool, error: BaseException
) -> None:
    if held:
        store(manager, issued(ADDRESS, jti="old"))
    manager._auth_event = threading.Event()
    manager._refresh_event.set()
    manager._pending_era_number = 3
    manager._permanent_refresh_error = True
    before = snapshot(manager)
    clock.error = error
    with pytest.raises(type(error)) as caught:
        store(manager, issued(ADDRESS, 3))
    assert caught.value is error
    assert changes(before, snapshot(manager)) == set()


def test_a_raising_random_source_leaves_the_manager_as_it_was(manager: Any, jitter: dict[str, Any]) -> None:
    jitter["value"] = OSError("no randomness")
    before = snapshot(manager)
    with pytest.raises(OSError, match="no randomness"):
        store(manager, issued(ADDRESS))
    assert changes(before, snapshot(manager)) == set()


def test_a_clock_that_gives_no_number_leaves_the_manager_as_it_was(manager: Any) -> None:
    manager._clock = lambda: "noon"
    before = snapshot(manager)
    with pytest.raises(TypeError):
        store(manager, issued(ADDRESS))
    assert changes(before, snapshot(manager)) == set()


def test_after_a_successful_store_the_permanent_error_is_false_even_if_it_was_true(manager: Any) -> None:
    manager._permanent_refresh_error = True
    store(manager, issued(ADDRESS))
    assert manager._permanent_refresh_error is False


def test_fields_are_complete_when_a_waiter_wakes(manager: Any) -> None:
    seen: list[Any] = []

    class Watched(threading.Event):
        def set(self) -> None:
            seen.append(
                (manager._state, manager._token, manager._lock.locked(), manager._refresh_done.is_set())
            )
            super().set()

    manager._auth_event = Watched()
    token = issued(ADDRESS)
    store(manager, token)
    assert seen == [("AUTHENTICATED", token, True, False)]


# The guard


def guard(manager: Any) -> Any:
    def locked() -> Any:
        with manager._lock:
            return manager._raise_if_pending_era_locked()

    return within(5.0, locked)


def test_guard_returns_when_no_era_is_pending_even_with_an_error_recorded(manager: Any) -> None:
    assert guard(manager) is None
    manager._auth_error = auth.AuthError(reason="old")
    assert guard(manager) is None


def test_guard_raises_the_recorded_error_itself(manager: Any) -> None:
    error = manager._auth_error = auth.AuthError(reason="signature_mismatch")
    manager._pending_era_number = 5
    for _ in range(2):
        with pytest.raises(auth.AuthError) as caught:
            guard(manager)
        assert caught.value is error


def test_guard_without_a_recorded_error_is_era_change_pending(manager: Any) -> None:
    manager._pending_era_number = 5
    with pytest.raises(auth.AuthError) as caught:
        guard(manager)
    assert reason_of(caught.value) == "era_change_pending"


def test_guard_changes_nothing(manager: Any) -> None:
    manager._pending_era_number = 5
    before = snapshot(manager)
    with pytest.raises(auth.AuthError):
        guard(manager)
    assert changes(before, snapshot(manager)) == set()


@pytest.mark.parametrize("args", [(), ("t",), ("t", b"s", 5)])
def test_no_token_in_an_argument_error(manager: Any, args: tuple[Any, ...]) -> None:
    with pytest.raises(TypeError, match="_store_auth_result") as caught:
        manager._store_auth_result(*[issued(ADDRESS) for _ in args])
    assert issued(ADDRESS) not in str(caught.value)

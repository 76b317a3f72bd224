"""The short wait after expiry for a re-authentication to begin."""

from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until, waiters

from .helpers.clocks import FakeTime, ScriptedEvent
from .helpers.managers import changes, reason_of, snapshot

TOKEN = "the token in place"


@pytest.fixture
def fake_time(monkeypatch: pytest.MonkeyPatch) -> FakeTime:
    fake = FakeTime()
    monkeypatch.setattr(auth, "_time", fake)
    return fake


@pytest.fixture
def expired(manager: Any, clock: HandClock) -> Any:
    """A manager whose token has expired and that has no refresh thread."""
    manager._state = "AUTHENTICATED"
    manager._token = TOKEN
    manager._auth_time = 100.0
    manager._token_iat = 100.0
    manager._token_expiry = clock.now
    manager._refresh_at = 500.0
    return manager


def failure(manager: Any, fallback: Any = False) -> Any:
    with pytest.raises(auth.AuthError) as caught:
        manager._poll_for_reauth(fallback)
    return caught.value


def at_pass(number: int, action: Callable[[], Any]) -> Callable[[int], None]:
    return lambda count: action() if count == number else None


def test_docstring_says_what_comes_of_a_time_out() -> None:
    flat = " ".join(auth.AuthManager._poll_for_reauth.__doc__.split())
    assert "If fallback_to_current_token is True, returns the current token on poll timeout" in flat
    assert "(used when refresh_pending is set). Otherwise raises token_expired." in flat


def test_without_refresh_thread_and_fallback_it_is_token_expired_after_3_seconds(
    expired: Any, fake_time: FakeTime
) -> None:
    assert reason_of(failure(expired)) == "token_expired"
    assert fake_time.sleeps == [0.1] * 30
    assert fake_time.elapsed == pytest.approx(3.0)


def test_without_refresh_thread_and_with_fallback_the_expired_token_is_returned_after_3_seconds(
    expired: Any, fake_time: FakeTime
) -> None:
    assert expired._poll_for_reauth(True) == TOKEN
    assert fake_time.sleeps == [0.1] * 30


def test_fallback_may_be_a_keyword_and_any_truth_value(expired: Any, fake_time: FakeTime) -> None:
    assert expired._poll_for_reauth(fallback_to_current_token="yes") is TOKEN
    assert reason_of(failure(expired, 0)) == "token_expired"


def test_fallback_without_a_token_is_token_expired(expired: Any, fake_time: FakeTime) -> None:
    expired._token = None
    assert reason_of(failure(expired, True)) == "token_expired"
    assert len(fake_time.sleeps) == 30


def test_fallback_returns_the_token_in_place_at_the_end(expired: Any, fake_time: FakeTime) -> None:
    # Still expired, so that it does not count as a renewal.
    fake_time.on_sleep = at_pass(30, lambda: setattr(expired, "_token", "exchanged"))
    assert expired._poll_for_reauth(True) == "exchanged"


def test_the_poll_reads_real_time_only(expired: Any, fake_time: FakeTime, clock: HandClock) -> None:
    fake_time.on_sleep = lambda count: clock.advance(1_000_000.0)
    assert expired._poll_for_reauth(True) == TOKEN
    assert len(fake_time.sleeps) == 30


def test_the_first_look_comes_after_the_first_sleep(expired: Any, fake_time: FakeTime) -> None:
    expired._state = "CLOSED"
    assert reason_of(failure(expired)) == "manager_closed"
    assert fake_time.sleeps == [0.1]


@pytest.mark.parametrize("number", [1, 2, 17, 30])
def test_a_permanent_error_set_during_the_poll_ends_it_at_the_next_pass(
    expired: Any, fake_time: FakeTime, number: int
) -> None:
    fake_time.on_sleep = at_pass(number, lambda: setattr(expired, "_permanent_refresh_error", True))
    assert reason_of(failure(expired, True)) == "token_expired"
    assert len(fake_time.sleeps) == number


@pytest.mark.parametrize("number", [1, 2, 17, 30])
def test_closing_during_the_poll_ends_it_with_manager_closed_at_the_next_pass(
    expired: Any, fake_time: FakeTime, number: int
) -> None:
    fake_time.on_sleep = at_pass(number, expired.close)
    assert reason_of(failure(expired, True)) == "manager_closed"
    assert len(fake_time.sleeps) == number


def test_the_permanent_error_is_looked_at_before_the_closed_state(expired: Any, fake_time: FakeTime) -> None:
    expired._state = "CLOSED"
    expired._permanent_refresh_error = True
    assert reason_of(failure(expired)) == "token_expired"


def test_a_re_authentication_is_looked_for_before_the_permanent_error(
    expired: Any, fake_time: FakeTime
) -> None:
    expired._state = "RE_AUTHENTICATING"
    expired._permanent_refresh_error = True

    def done(count: int) -> None:
        expired._state = "AUTHENTICATED"
        expired._permanent_refresh_error = False
        expired._token = "renewed"

    expired._auth_event = ScriptedEvent(done)
    assert expired._poll_for_reauth(False) == "renewed"
    assert len(expired._auth_event.waits) == 1
    assert fake_time.sleeps == [0.1]


def test_a_truthy_permanent_error_counts(expired: Any, fake_time: FakeTime) -> None:
    expired._permanent_refresh_error = "yes"
    assert reason_of(failure(expired)) == "token_expired"
    assert len(fake_time.sleeps) == 1


def test_an_era_announced_meanwhile_is_enforced_at_the_time_out(expired: Any, fake_time: FakeTime) -> None:
    fake_time.on_sleep = at_pass(5, lambda: setattr(expired, "_pending_era_number", 9))
    assert reason_of(failure(expired, True)) == "era_change_pending"
    assert len(fake_time.sleeps) == 30


def test_an_era_whose_re_authentication_failed_gives_that_error_at_the_time_out(
    expired: Any, fake_time: FakeTime
) -> None:
    expired._pending_era_number = 9
    error = expired._auth_error = auth.AuthError(reason="unauthorized")
    assert failure(expired, True) is error


def test_an_error_without_a_pending_era_does_not_matter_at_the_time_out(
    expired: Any, fake_time: FakeTime
) -> None:
    expired._auth_error = auth.AuthError(reason="unauthorized")
    assert expired._poll_for_reauth(True) == TOKEN
    assert reason_of(failure(expired, False)) == "token_expired"


def test_the_guard_of_the_instance_is_used_with_the_lock_held(expired: Any, fake_time: FakeTime) -> None:
    seen: list[bool] = []
    expired._raise_if_pending_era_locked = lambda: seen.append(expired._lock.locked())
    assert expired._poll_for_reauth(True) == TOKEN
    assert seen and all(seen)


def test_the_lock_is_free_while_sleeping(expired: Any, fake_time: FakeTime) -> None:
    locked: list[bool] = []
    fake_time.on_sleep = lambda count: locked.append(expired._lock.locked())
    failure(expired)
    assert locked == [False] * 30


def test_nothing_is_changed_by_a_poll_that_fails(expired: Any, fake_time: FakeTime) -> None:
    before = snapshot(expired)
    failure(expired)
    assert changes(before, snapshot(expired)) == set()


# A re-authentication seen


def reauth(expired: Any, fake_time: FakeTime, number: int, script: Callable[[int], None]) -> ScriptedEvent:
    event = ScriptedEvent(script)

    def begin() -> None:
        expired._auth_event = event
        expired._state = "RE_AUTHENTICATING"

    fake_time.on_sleep = at_pass(number, begin)
    return event


@pytest.mark.parametrize("number", [1, 12, 30])
def test_a_re_authentication_that_begins_is_waited_for_without_a_time_out(
    expired: Any, fake_time: FakeTime, number: int
) -> None:
    def done(count: int) -> None:
        assert not expired._lock.locked()
        expired._state = "AUTHENTICATED"
        expired._token = "renewed"

    event = reauth(expired, fake_time, number, done)
    assert expired._poll_for_reauth(False) == "renewed"
    assert event.timeouts == [None]
    assert len(fake_time.sleeps) == number


def test_a_re_authentication_that_finishes_without_a_token_is_token_expired(
    expired: Any, fake_time: FakeTime
) -> None:
    reauth(expired, fake_time, 3, lambda count: setattr(expired, "_token", None))
    assert reason_of(failure(expired, True)) == "token_expired"


def test_after_the_wait_a_token_is_returned_even_when_an_error_is_recorded(
    expired: Any, fake_time: FakeTime
) -> None:
    reauth(expired, fake_time, 1, lambda count: setattr(expired, "_auth_error", auth.AuthError(reason="x")))
    assert expired._poll_for_reauth(False) == TOKEN


@pytest.mark.parametrize(
    ("fields", "reason"),
    [
        ({"_state": "CLOSED", "_pending_era_number": 5, "_permanent_refresh_error": True}, "manager_closed"),
        ({"_pending_era_number": 5, "_permanent_refresh_error": True}, "era_change_pending"),
        ({"_permanent_refresh_error": True}, "token_expired"),
    ],
)
def test_after_the_wait_closed_comes_before_the_era_and_the_era_before_the_permanent_error(
    expired: Any, fake_time: FakeTime, fields: dict[str, Any], reason: str
) -> None:
    def done(count: int) -> None:
        for name, value in fields.items():
            setattr(expired, name, value)

    reauth(expired, fake_time, 1, done)
    assert reason_of(failure(expired, True)) == reason


def test_after_the_wait_the_error_of_a_failed_era_change_is_raised_itself(
    expired: Any, fake_time: FakeTime
) -> None:
    error = auth.AuthError(reason="era_mismatch")

    def done(count: int) -> None:
        expired._pending_era_number, expired._auth_error = 5, error

    reauth(expired, fake_time, 1, done)
    assert failure(expired) is error


def test_a_re_authentication_without_an_event_is_not_waited_for(expired: Any, fake_time: FakeTime) -> None:
    expired._state = "RE_AUTHENTICATING"
    expired._auth_event = None
    assert expired._poll_for_reauth(False) == TOKEN
    expired._token = None
    assert reason_of(failure(expired)) == "token_expired"


def test_closing_during_the_wait_wakes_it_with_manager_closed(expired: Any, fake_time: FakeTime) -> None:
    expired._state = "RE_AUTHENTICATING"
    event = expired._auth_event = threading.Event()
    worker = Worker(expired._poll_for_reauth, True)
    until(lambda: waiters(event) == 1, what="the wait")
    expired.close()
    assert reason_of(worker.failure(1.0)) == "manager_closed"


# A renewal that begins and ends between two polls


def test_a_renewal_finished_between_two_looks_is_returned_at_once(
    expired: Any, fake_time: FakeTime, clock: HandClock
) -> None:
    def renew() -> None:
        expired._token = "renewed"
        expired._token_expiry = clock.now + 86400

    fake_time.on_sleep = at_pass(4, renew)
    assert expired._poll_for_reauth(False) == "renewed"
    assert len(fake_time.sleeps) == 4


@pytest.mark.parametrize(
    ("fields", "reason"),
    [
        ({"_token": "renewed"}, "token_expired"),
        ({"_token_expiry": 90000.0}, "token_expired"),
        ({"_token": "renewed", "_token_expiry": 90000.0, "_state": "UNINITIALIZED"}, "token_expired"),
        ({"_token": "renewed", "_token_expiry": 90000.0, "_pending_era_number": 3}, "era_change_pending"),
        ({"_token": None, "_token_expiry": 90000.0}, "token_expired"),
    ],
    ids=["expired", "same token", "not authenticated", "era pending", "no token"],
)
def test_what_is_not_a_finished_renewal_is_waited_out(
    expired: Any, fake_time: FakeTime, fields: dict[str, Any], reason: str
) -> None:
    def change() -> None:
        for name, value in fields.items():
            setattr(expired, name, value)

    fake_time.on_sleep = at_pass(4, change)
    assert reason_of(failure(expired)) == reason
    assert len(fake_time.sleeps) == 30


def test_a_closed_manager_with_another_token_is_closed(expired: Any, fake_time: FakeTime) -> None:
    def change() -> None:
        expired._token, expired._token_expiry, expired._state = "renewed", 90000.0, "CLOSED"

    fake_time.on_sleep = at_pass(4, change)
    assert reason_of(failure(expired)) == "manager_closed"


@pytest.mark.parametrize("args", [(), (True, False)])
def test_wrong_arguments(expired: Any, args: tuple[Any, ...]) -> None:
    with pytest.raises(TypeError, match="_poll_for_reauth"):
        expired._poll_for_reauth(*args)

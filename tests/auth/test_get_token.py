"""`get_token`: what it calls and changes, and its callers. Its rules are in tests/contract/serving.py."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, until, waiters

from .helpers.clocks import ScriptedEvent
from .helpers.managers import changes, reason_of, refresh_threads, snapshot
from .helpers.server import CHALLENGE, VERIFY, Answer, FakeServer

NOW = 1000.0
TOKEN = "the token in place"


@pytest.fixture
def serving(manager: Any) -> Any:
    """A manager with a valid token, a distant refresh point and no thread."""
    manager._state = "AUTHENTICATED"
    manager._token = TOKEN
    manager._token_expiry = NOW + 86400
    manager._token_iat = manager._auth_time = NOW
    manager._refresh_at = NOW + 70000
    return manager


def failure(manager: Any) -> Any:
    with pytest.raises(auth.AuthError) as caught:
        manager.get_token()
    return caught.value


def put(manager: Any, **fields: Any) -> None:
    for name, value in fields.items():
        setattr(manager, name, value)


def test_it_never_logs_in_by_itself(manager: Any, server: FakeServer) -> None:
    assert reason_of(failure(manager)) == "not_authenticated"
    assert server.calls == []


# Normal serving


def test_a_healthy_manager_serves_the_very_token(serving: Any) -> None:
    assert serving.get_token() is TOKEN


def test_a_healthy_manager_with_the_wall_clock_serves_too(serving: Any) -> None:
    now = time.time()
    put(serving, _clock=time.time, _uses_injected_clock=False)
    put(serving, _token_expiry=now + 5000, _refresh_at=now + 4000, _auth_time=now)
    assert serving.get_token() is TOKEN
    put(serving, _token_expiry=now - 1, _poll_for_reauth=lambda fallback_to_current_token: "polled")
    assert serving.get_token() == "polled"


def test_serving_changes_nothing_and_makes_no_request(serving: Any, server: FakeServer) -> None:
    before = snapshot(serving)
    for _ in range(3):
        serving.get_token()
    assert changes(before, snapshot(serving)) == set()
    assert server.calls == []


def test_the_time_of_the_instance_is_used(serving: Any) -> None:
    serving._get_time = lambda: NOW + 999_999
    serving._poll_for_reauth = lambda fallback_to_current_token: "polled"
    assert serving.get_token() == "polled"


def test_a_raising_clock_passes_through(serving: Any, clock: HandClock) -> None:
    clock.error = RuntimeError("no time")
    with pytest.raises(RuntimeError, match="no time"):
        serving.get_token()
    assert not serving._lock.locked()


def test_a_subclass_clock_reading_is_used(make_manager: Callable[..., Any]) -> None:
    class Later(auth.AuthManager):
        def _get_time(self) -> float:
            return 1e12

        def _poll_for_reauth(self, fallback_to_current_token: bool) -> str:
            return f"polled {fallback_to_current_token}"

    manager = make_manager(cls=Later)
    put(manager, _state="AUTHENTICATED", _token=TOKEN, _token_expiry=5.0)
    assert manager.get_token() == "polled False"


# Expiry


@pytest.mark.parametrize("pending", [False, True])
def test_the_poll_may_fall_back_exactly_while_a_refresh_is_pending(serving: Any, pending: bool) -> None:
    asked: list[Any] = []
    serving._token_expiry = NOW
    if pending:
        serving._refresh_pending.set()
    serving._poll_for_reauth = lambda *args, **kwargs: asked.append((args, kwargs)) or "polled"
    assert serving.get_token() == "polled"
    assert asked == [((), {"fallback_to_current_token": pending})]


def test_the_poll_is_made_with_the_lock_free_and_its_error_passes(serving: Any) -> None:
    error = LookupError("from the poll")
    locked: list[bool] = []

    def poll(fallback_to_current_token: bool) -> str:
        locked.append(serving._lock.locked())
        raise error

    put(serving, _token_expiry=NOW, _poll_for_reauth=poll)
    with pytest.raises(LookupError) as caught:
        serving.get_token()
    assert caught.value is error
    assert locked == [False]


def test_the_refresh_thread_is_woken_before_the_poll(serving: Any) -> None:
    woken: list[bool] = []
    serving._token_expiry = NOW
    serving._poll_for_reauth = lambda **kwargs: woken.append(serving._refresh_event.is_set())
    serving.get_token()
    assert woken == [True]


# Refresh due


def due(manager: Any, script: Callable[[int], Any] | None = None, refresh_at: float = NOW) -> ScriptedEvent:
    manager._refresh_at = refresh_at
    manager._refresh_done = ScriptedEvent(script)
    return manager._refresh_done


def test_the_refresh_thread_is_woken_before_the_wait_with_the_lock_free(serving: Any) -> None:
    seen: list[Any] = []
    due(serving, lambda count: seen.append((serving._refresh_event.is_set(), serving._lock.locked())))
    serving.get_token()
    assert seen == [(True, False)]


# Re-authentication that begins after the snapshot


def begin_at_clock(serving: Any, event: Any, **fields: Any) -> None:
    def clock() -> float:
        serving._clock = lambda: NOW
        put(serving, _state="RE_AUTHENTICATING", _auth_event=event, **fields)
        return NOW

    serving._clock = clock


@pytest.mark.parametrize(
    ("fields", "reason"),
    [
        ({}, "token_expired"),
        ({"_permanent_refresh_error": True}, "token_expired"),
        ({"_pending_era_number": 3}, "era_change_pending"),
    ],
)
def test_a_re_authentication_meanwhile_that_ended_without_a_result(
    serving: Any, fields: dict[str, Any], reason: str
) -> None:
    event = ScriptedEvent()
    event.set()
    begin_at_clock(serving, event, **fields)
    assert reason_of(failure(serving)) == reason
    assert event.waits == []


def test_a_re_authentication_meanwhile_that_ended_with_an_error_raises_it_itself(serving: Any) -> None:
    error = auth.AuthError(reason="unauthorized")
    event = ScriptedEvent()
    event.set()
    begin_at_clock(serving, event, _auth_error=error)
    assert failure(serving) is error


# With real threads


def test_callers_during_the_first_login_get_its_token(manager: Any, server: FakeServer) -> None:
    gate = server.hold(CHALLENGE)
    runner = Worker(manager.authenticate)
    gate.reached()
    callers = [Worker(manager.get_token) for _ in range(8)]
    until(lambda: waiters(manager._auth_event) == 8, what="the waiting callers")
    gate.release()
    runner.result()
    assert {caller.result() for caller in callers} == {server.tokens[0]}


def test_callers_during_a_failing_first_login_get_its_error_itself(manager: Any, server: FakeServer) -> None:
    server.always(VERIFY, Answer(401))
    gate = server.hold(CHALLENGE)
    runner = Worker(manager.authenticate)
    gate.reached()
    callers = [Worker(manager.get_token) for _ in range(4)]
    until(lambda: waiters(manager._auth_event) == 4, what="the waiting callers")
    gate.release()
    error = runner.failure()
    for caller in callers:
        assert caller.failure() is error


def test_past_the_refresh_point_a_caller_gets_the_renewed_token(
    logged_in: Any, server: FakeServer, clock: HandClock
) -> None:
    clock.now = logged_in._refresh_at
    worker = Worker(logged_in.get_token)
    assert worker.result(5.0) == server.tokens[1]


def test_a_failed_login_on_an_authenticated_manager_still_serves_the_old_token(
    logged_in: Any, server: FakeServer
) -> None:
    server.always(VERIFY, Answer(401))
    with pytest.raises(auth.AuthError):
        logged_in.authenticate()
    assert logged_in.get_token() == server.tokens[0]
    until(lambda: len(refresh_threads(logged_in)) == 1, what="the refresh loop")


def test_after_a_failed_refresh_callers_are_not_authenticated(
    logged_in: Any, server: FakeServer, clock: HandClock
) -> None:
    server.always(VERIFY, Answer(401))
    thread = logged_in._refresh_thread
    clock.now = logged_in._refresh_at
    thread.join(5.0)
    assert reason_of(failure(logged_in)) == "not_authenticated"


def test_many_threads_are_served_while_the_token_is_renewed(
    logged_in: Any, server: FakeServer, clock: HandClock
) -> None:
    stop = threading.Event()

    def serve() -> set[str]:
        seen = set()
        while not stop.is_set():
            seen.add(logged_in.get_token())
        return seen

    workers = [Worker(serve) for _ in range(8)]
    for cycle in range(1, 4):
        clock.now = logged_in._refresh_at
        until(lambda cycle=cycle: len(server.tokens) > cycle, what="the renewal")  # type: ignore[misc]
        until(lambda: logged_in._state == "AUTHENTICATED", what="the store")
    stop.set()
    for worker in workers:
        assert worker.result() <= set(server.tokens)
    assert logged_in.get_token() == server.tokens[-1]


@pytest.mark.parametrize("args", [(1,), (1, 2)])
def test_wrong_arguments(serving: Any, args: tuple[Any, ...]) -> None:
    with pytest.raises(TypeError, match="get_token"):
        serving.get_token(*args)

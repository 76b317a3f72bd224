"""`get_token`: every state, boundary and wait."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.shared.threads import Worker, until, waiters

from .helpers.clocks import ScriptedEvent, SteppedClock
from .helpers.managers import changes, reason_of, refresh_threads, snapshot
from .helpers.server import CHALLENGE, REGISTER, VERIFY, Answer, FakeServer

NOW = 1000.0
TOKEN = "the token in place"


@pytest.fixture
def serving(manager: Any) -> Any:
    """A manager with a good token, a refresh far away and no thread."""
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


def test_docstring() -> None:
    first = auth.AuthManager.get_token.__doc__.splitlines()[0]
    assert first == "Return current valid JWT token, blocking during refresh."


# Terminal states


@pytest.mark.parametrize(
    ("state", "reason"),
    [("CLOSED", "manager_closed"), ("UNINITIALIZED", "not_authenticated"), ("BOGUS", "not_authenticated")],
)
def test_terminal_state_refuses_whatever_else_is_set(serving: Any, state: str, reason: str) -> None:
    put(serving, _state=state, _pending_era_number=4, _auth_error=auth.AuthError(reason="x"))
    assert reason_of(failure(serving)) == reason
    serving._state = "AUTHENTICATED"


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


def test_without_a_token_it_is_not_authenticated(serving: Any) -> None:
    serving._token = None
    assert reason_of(failure(serving)) == "not_authenticated"


def test_a_permanent_error_is_token_expired_even_while_the_token_is_good(serving: Any) -> None:
    serving._permanent_refresh_error = True
    assert reason_of(failure(serving)) == "token_expired"


def test_an_old_error_without_a_pending_era_does_not_matter(serving: Any) -> None:
    serving._auth_error = auth.AuthError(reason="old")
    assert serving.get_token() is TOKEN


def test_without_expiry_and_refresh_time_the_token_is_served(serving: Any) -> None:
    put(serving, _token_expiry=None, _refresh_at=None, _auth_time=None)
    assert serving.get_token() is TOKEN


def test_the_time_of_the_instance_is_used(serving: Any) -> None:
    serving._get_time = lambda: NOW + 999_999
    serving._poll_for_reauth = lambda fallback_to_current_token: "polled"
    assert serving.get_token() == "polled"


def test_a_raising_clock_passes_through(serving: Any, clock: SteppedClock) -> None:
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


# Era


def test_an_announced_era_is_era_change_pending_at_once(serving: Any, clock: SteppedClock) -> None:
    serving._pending_era_number = 5
    readings = clock.readings
    assert reason_of(failure(serving)) == "era_change_pending"
    assert clock.readings == readings


def test_an_announced_era_with_a_stored_error_raises_that_error_itself(serving: Any) -> None:
    error = auth.AuthError(reason="signature_mismatch")
    put(serving, _pending_era_number=5, _auth_error=error)
    assert failure(serving) is error
    assert failure(serving) is error


# Hard expiry


@pytest.mark.parametrize(("offset", "polls"), [(0.0, True), (-0.001, True), (-1e9, True), (0.001, False)])
def test_expiry_equal_to_now_counts_as_expired_and_goes_to_the_poll(
    serving: Any, offset: float, polls: bool
) -> None:
    serving._token_expiry = NOW + offset
    serving._poll_for_reauth = lambda fallback_to_current_token: "polled"
    assert serving.get_token() == ("polled" if polls else TOKEN)


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


def test_a_permanent_error_past_expiry_is_token_expired_without_a_poll(serving: Any) -> None:
    put(serving, _token_expiry=NOW, _permanent_refresh_error=True)
    serving._poll_for_reauth = lambda **kwargs: pytest.fail("polled")
    assert reason_of(failure(serving)) == "token_expired"


# Refresh due


def due(manager: Any, script: Callable[[int], Any] | None = None, refresh_at: float = NOW) -> ScriptedEvent:
    manager._refresh_at = refresh_at
    manager._refresh_done = ScriptedEvent(script)
    return manager._refresh_done


@pytest.mark.parametrize(("offset", "waits"), [(0.0, 1), (-5.0, 1), (0.001, 0)])
def test_the_refresh_point_counts_from_equality(serving: Any, offset: float, waits: int) -> None:
    done = due(serving, refresh_at=NOW + offset)
    assert serving.get_token() is TOKEN
    assert len(done.waits) == waits
    assert serving._refresh_event.is_set() is bool(waits)


def test_after_the_refresh_point_a_caller_waits_at_most_10_seconds_then_takes_the_current_token(
    serving: Any,
) -> None:
    done = due(serving)
    assert serving.get_token() is TOKEN
    assert done.waits == [((), {"timeout": 10.0})]


def test_the_token_in_place_after_the_wait_is_returned(serving: Any) -> None:
    done = due(serving, lambda count: setattr(serving, "_token", "renewed"))
    assert serving.get_token() == "renewed"
    assert len(done.waits) == 1


def test_the_refresh_thread_is_woken_before_the_wait_with_the_lock_free(serving: Any) -> None:
    seen: list[Any] = []
    due(serving, lambda count: seen.append((serving._refresh_event.is_set(), serving._lock.locked())))
    serving.get_token()
    assert seen == [(True, False)]


@pytest.mark.parametrize(
    ("fields", "reason"),
    [
        ({"_state": "CLOSED", "_pending_era_number": 3, "_permanent_refresh_error": True}, "manager_closed"),
        ({"_pending_era_number": 3, "_permanent_refresh_error": True}, "era_change_pending"),
        ({"_permanent_refresh_error": True}, "token_expired"),
        ({"_token": None}, "token_expired"),
    ],
)
def test_after_the_wait_closed_precedes_era_precedes_permanent_error(
    serving: Any, fields: dict[str, Any], reason: str
) -> None:
    due(serving, lambda count: put(serving, **fields))
    assert reason_of(failure(serving)) == reason


def test_after_the_wait_an_error_without_an_era_does_not_matter(serving: Any) -> None:
    due(serving, lambda count: put(serving, _auth_error=auth.AuthError(reason="x"), _state="UNINITIALIZED"))
    assert serving.get_token() is TOKEN


@pytest.mark.parametrize("name", ["_auth_time", "_refresh_at"])
def test_without_issue_or_refresh_time_there_is_no_nudge(serving: Any, name: str) -> None:
    done = due(serving)
    setattr(serving, name, None)
    assert serving.get_token() is TOKEN
    assert done.waits == []
    assert not serving._refresh_event.is_set()


def test_expiry_comes_before_the_refresh_point(serving: Any) -> None:
    done = due(serving)
    put(serving, _token_expiry=NOW, _poll_for_reauth=lambda **kwargs: "polled")
    assert serving.get_token() == "polled"
    assert done.waits == []


def test_a_refresh_that_happens_between_the_nudge_and_the_wait_costs_nothing(serving: Any) -> None:
    done = due(serving)

    class Nudge(threading.Event):
        def set(self) -> None:
            put(serving, _token="renewed", _auth_time=NOW + 1, _refresh_at=NOW + 70000)
            super().set()

    serving._refresh_event = Nudge()
    assert serving.get_token() == "renewed"
    assert done.waits == []


# While an authentication runs


def re_authenticating(manager: Any, script: Callable[[int], Any] | None = None) -> ScriptedEvent:
    put(manager, _state="RE_AUTHENTICATING", _reauth_mode="PROACTIVE", _auth_event=ScriptedEvent(script))
    return manager._auth_event


def test_during_a_proactive_refresh_in_backoff_the_valid_old_token_is_returned_at_once(serving: Any) -> None:
    event = re_authenticating(serving)
    serving._in_transient_backoff = True
    assert serving.get_token() is TOKEN
    assert event.waits == []


@pytest.mark.parametrize(
    "fields",
    [
        {"_in_transient_backoff": False},
        {"_reauth_mode": "ERA_CHANGE"},
        {"_reauth_mode": None},
        {"_token_expiry": None},
        {"_token_expiry": NOW},
        {"_token_expiry": NOW - 1},
        {"_state": "AUTHENTICATING"},
    ],
    ids=str,
)
def test_otherwise_the_caller_waits_for_the_running_authentication(
    serving: Any, fields: dict[str, Any]
) -> None:
    event = re_authenticating(serving, lambda count: put(serving, _token="renewed"))
    serving._in_transient_backoff = True
    put(serving, **fields)
    assert serving.get_token() == "renewed"
    assert event.timeouts == [None]


@pytest.mark.parametrize(
    "fields",
    [
        {"_state": "AUTHENTICATED"},
        {"_reauth_mode": "ERA_CHANGE"},
        {"_auth_event": None},
        {"_in_transient_backoff": False},
        {"_token": "changed"},
        {"_token_expiry": NOW},
    ],
    ids=str,
)
def test_what_changed_while_the_clock_was_read_sends_the_caller_to_the_wait(
    serving: Any, fields: dict[str, Any]
) -> None:
    event = re_authenticating(serving)
    serving._in_transient_backoff = True

    def clock() -> float:
        put(serving, **fields)
        return NOW

    serving._clock = clock
    assert serving.get_token() == fields.get("_token", TOKEN)
    assert len(event.waits) == 1


def test_closed_while_the_clock_was_read_is_manager_closed_without_a_wait(serving: Any) -> None:
    event = re_authenticating(serving)
    serving._in_transient_backoff = True

    def clock() -> float:
        serving._state = "CLOSED"
        return NOW

    serving._clock = clock
    assert reason_of(failure(serving)) == "manager_closed"
    assert event.waits == []


@pytest.mark.parametrize(
    ("fields", "reason"),
    [
        ({"_state": "CLOSED", "_pending_era_number": 3}, "manager_closed"),
        ({"_pending_era_number": 3, "_permanent_refresh_error": True}, "era_change_pending"),
        ({"_permanent_refresh_error": True}, "token_expired"),
        ({"_token": None}, "token_expired"),
    ],
)
def test_after_the_wait_for_an_authentication_the_checks_come_in_order(
    serving: Any, fields: dict[str, Any], reason: str
) -> None:
    re_authenticating(serving, lambda count: put(serving, **fields))
    assert reason_of(failure(serving)) == reason


def test_after_the_wait_a_stored_error_is_raised_itself_before_the_permanent_error(serving: Any) -> None:
    error = auth.AuthError(reason="unauthorized")
    re_authenticating(serving, lambda count: put(serving, _auth_error=error, _permanent_refresh_error=True))
    assert failure(serving) is error


def test_after_the_wait_the_state_does_not_matter_beyond_closed(serving: Any) -> None:
    re_authenticating(serving, lambda count: put(serving, _state="UNINITIALIZED"))
    assert serving.get_token() is TOKEN


def test_without_an_event_nothing_is_waited_for(serving: Any) -> None:
    put(serving, _state="AUTHENTICATING", _auth_event=None)
    assert serving.get_token() is TOKEN
    serving._token = None
    assert reason_of(failure(serving)) == "token_expired"


# Re-authentication that begins after the snapshot


def begin_at_clock(serving: Any, event: Any, **fields: Any) -> None:
    def clock() -> float:
        serving._clock = lambda: NOW
        put(serving, _state="RE_AUTHENTICATING", _auth_event=event, **fields)
        return NOW

    serving._clock = clock


def test_a_re_authentication_that_began_meanwhile_is_waited_for(serving: Any) -> None:
    event = ScriptedEvent(lambda count: put(serving, _state="AUTHENTICATED", _token="renewed"))
    begin_at_clock(serving, event)
    assert serving.get_token() == "renewed"
    assert event.timeouts == [None]


def test_several_re_authentications_in_a_row_are_waited_for(serving: Any) -> None:
    third = ScriptedEvent(lambda count: put(serving, _state="AUTHENTICATED", _token="third"))
    second = ScriptedEvent(lambda count: put(serving, _auth_event=third))
    first = ScriptedEvent(lambda count: put(serving, _auth_event=second))
    begin_at_clock(serving, first)
    assert serving.get_token() == "third"
    assert [len(event.waits) for event in (first, second, third)] == [1, 1, 1]


def test_a_re_authentication_meanwhile_without_an_event_is_token_expired(serving: Any) -> None:
    begin_at_clock(serving, None)
    assert reason_of(failure(serving)) == "token_expired"


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


@pytest.mark.parametrize(
    ("fields", "reason"),
    [
        ({"_state": "CLOSED", "_pending_era_number": 4}, "manager_closed"),
        ({"_state": "UNINITIALIZED", "_pending_era_number": 4}, "era_change_pending"),
        ({"_state": "UNINITIALIZED", "_permanent_refresh_error": True}, "token_expired"),
        ({"_state": "UNINITIALIZED"}, "not_authenticated"),
        ({"_state": "AUTHENTICATING"}, "not_authenticated"),
        ({"_token": None}, "not_authenticated"),
    ],
)
def test_what_the_confirmation_finds(serving: Any, fields: dict[str, Any], reason: str) -> None:
    def clock() -> float:
        put(serving, **fields)
        return NOW

    serving._clock = clock
    assert reason_of(failure(serving)) == reason
    serving._state = "AUTHENTICATED"


# With real threads


def test_a_manager_closed_while_a_caller_waits_makes_it_fail_with_manager_closed(
    manager: Any, server: FakeServer
) -> None:
    gate = server.hold(CHALLENGE)
    runner = Worker(manager.authenticate)
    gate.reached()
    caller = Worker(manager.get_token)
    until(lambda: waiters(manager._auth_event) == 1, what="the waiting caller")
    manager.close()
    assert reason_of(caller.failure(1.0)) == "manager_closed"
    gate.release()
    assert reason_of(runner.failure()) == "manager_closed"


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
    logged_in: Any, server: FakeServer, clock: SteppedClock
) -> None:
    clock.now = logged_in._refresh_at
    worker = Worker(logged_in.get_token)
    assert worker.result(5.0) == server.tokens[1]


def test_past_the_refresh_point_closing_wakes_the_caller_at_once(
    logged_in: Any, server: FakeServer, clock: SteppedClock
) -> None:
    gate = server.hold(REGISTER)
    logged_in._do_refresh = gate.pass_through
    clock.now = logged_in._refresh_at
    gate.reached()
    caller = Worker(logged_in.get_token)
    until(lambda: waiters(logged_in._refresh_done) == 1, what="the waiting caller")
    closer = Worker(logged_in.close)
    assert reason_of(caller.failure(0.5)) == "manager_closed"
    gate.release()
    closer.result()


def test_after_a_suspension_the_first_call_past_expiry_renews(
    make_manager: Callable[..., Any], server: FakeServer
) -> None:
    manager = make_manager()
    now = [1000.0]
    manager._clock, manager._uses_injected_clock = lambda: now[0], False
    manager.authenticate()
    until(lambda: waiters(manager._refresh_event) == 1, what="the long wait of the loop")
    now[0] += 200_000.0
    worker = Worker(manager.get_token)
    assert worker.result(2.5) == server.tokens[1]


def test_a_failed_login_on_an_authenticated_manager_still_serves_the_old_token(
    logged_in: Any, server: FakeServer
) -> None:
    server.always(VERIFY, Answer(401))
    with pytest.raises(auth.AuthError):
        logged_in.authenticate()
    assert logged_in.get_token() == server.tokens[0]
    until(lambda: len(refresh_threads(logged_in)) == 1, what="the refresh loop")


def test_after_a_failed_refresh_callers_are_not_authenticated(
    logged_in: Any, server: FakeServer, clock: SteppedClock
) -> None:
    server.always(VERIFY, Answer(401))
    thread = logged_in._refresh_thread
    clock.now = logged_in._refresh_at
    thread.join(5.0)
    assert reason_of(failure(logged_in)) == "not_authenticated"


def test_many_threads_are_served_while_the_token_is_renewed(
    logged_in: Any, server: FakeServer, clock: SteppedClock
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

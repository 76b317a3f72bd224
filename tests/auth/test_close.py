"""Closing: what it clears, whom it wakes, how long it takes, and that it cannot be undone."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.sanitized import patience
from tests.shared.threads import Worker, until

from .helpers.clocks import ScriptedEvent
from .helpers.managers import ADDRESS, changes, reason_of, refresh_threads, snapshot
from .helpers.server import CHALLENGE, VERIFY, FakeServer

STATES = ["UNINITIALIZED", "AUTHENTICATING", "AUTHENTICATED", "RE_AUTHENTICATING", "BOGUS"]
CLEARED = ("_private_key", "_token", "_wallet_secret", "_token_iat", "_token_expiry", "_refresh_thread")
PROMPT = patience(0.5)


class FakeThread:
    """A thread that only records how it is joined."""

    def __init__(self, on_join: Callable[[], None] | None = None) -> None:
        self.joins: list[Any] = []
        self.on_join = on_join

    def join(self, *args: Any, **kwargs: Any) -> None:
        self.joins.append((args, kwargs))
        if self.on_join is not None:
            self.on_join()

    def is_alive(self) -> bool:
        return True


@pytest.mark.parametrize("state", STATES)
def test_close_from_any_state_ends_in_closed_and_clears_everything(manager: Any, state: str) -> None:
    manager._state = state
    manager._reauth_mode = "ERA_CHANGE"
    manager._pending_era_number = 5
    for name in CLEARED[1:5]:
        setattr(manager, name, 1)
    assert manager.close() is None
    assert manager._state == "CLOSED"
    assert manager._reauth_mode is None
    assert manager._pending_era_number is None
    assert [getattr(manager, name) for name in CLEARED] == [None] * len(CLEARED)
    for name in ("_close_event", "_refresh_stop", "_refresh_event", "_refresh_done"):
        assert getattr(manager, name).is_set(), name
    assert not manager._lock.locked()


def test_close_on_a_never_authenticated_manager_has_no_thread_to_join(manager: Any) -> None:
    manager.close()
    assert manager._state == "CLOSED"
    assert manager._refresh_thread is None
    assert manager._auth_event is None
    assert manager._auth_error is None


def test_close_with_an_event_stores_manager_closed_and_sets_it(manager: Any) -> None:
    event = manager._auth_event = threading.Event()
    manager._auth_error = auth.AuthError(reason="old")
    manager.close()
    assert reason_of(manager._auth_error) == "manager_closed"
    assert manager._auth_event is event and event.is_set()


def test_close_without_an_event_leaves_the_stored_error(manager: Any) -> None:
    old = manager._auth_error = auth.AuthError(reason="old")
    manager.close()
    assert manager._auth_error is old


def test_close_leaves_no_frames_in_the_stored_error(manager: Any) -> None:
    manager._auth_error = old = auth.AuthError(reason="old")
    with pytest.raises(auth.AuthError):
        raise old
    assert old.__traceback__ is not None
    manager.close()
    assert old.__traceback__ is None


def test_close_sets_the_event_of_an_attempt_too_where_the_field_has_another(logged_in: Any) -> None:
    of_the_login = logged_in._auth_event
    of_the_login.clear()
    logged_in._auth_event = of_the_program = threading.Event()
    logged_in.close()
    assert of_the_login.is_set()
    assert of_the_program.is_set()


def test_close_leaves_what_it_does_not_own(manager: Any) -> None:
    manager._refresh_at = 5.0
    manager._auth_time = 4.0
    manager._invite_code = "code"
    before = snapshot(manager)
    manager.close()
    assert changes(before, snapshot(manager)) == {
        "_state",
        "_private_key",
        "_close_event is set",
        "_refresh_stop is set",
        "_refresh_event is set",
        "_refresh_done is set",
    }


def test_the_events_are_set_in_order_with_the_state_closed_and_the_lock_free(manager: Any) -> None:
    seen: list[Any] = []

    class Named(threading.Event):
        name = ""

        def set(self) -> None:
            seen.append((self.name, manager._state, manager._lock.locked(), manager._private_key is None))
            super().set()

    for name in ("_close_event", "_refresh_stop", "_refresh_event"):
        event = Named()
        event.name = name
        setattr(manager, name, event)
    manager.close()
    assert seen == [
        ("_close_event", "CLOSED", False, False),
        ("_refresh_stop", "CLOSED", False, False),
        ("_refresh_event", "CLOSED", False, False),
    ]


def test_the_waiters_event_is_set_under_the_lock_after_the_stop_events(manager: Any) -> None:
    seen: list[Any] = []

    class Watched(threading.Event):
        def set(self) -> None:
            seen.append((manager._lock.locked(), manager._refresh_event.is_set(), manager._auth_error.reason))
            super().set()

    manager._auth_event = Watched()
    manager.close()
    assert seen == [(True, True, "manager_closed")]


def test_a_step_that_fails_keeps_no_other_from_being_taken_and_the_first_failure_is_raised(
    manager: Any,
) -> None:
    class Broken(threading.Event):
        def set(self) -> None:
            raise errors.pop(0)

    first = ValueError("first")
    errors = [first, ValueError("second")]
    manager._close_event, manager._refresh_event = Broken(), Broken()
    event = manager._auth_event = threading.Event()
    with pytest.raises(ValueError) as caught:
        manager.close()
    assert caught.value is first
    assert errors == []
    assert manager._refresh_stop.is_set() and event.is_set()
    assert manager._private_key is None


# The refresh thread


def test_the_refresh_thread_is_joined_for_at_most_a_second_after_the_clearing(manager: Any) -> None:
    seen: list[Any] = []
    thread = manager._refresh_thread = FakeThread(
        lambda: seen.append((manager._private_key, manager._token, manager._lock.locked()))
    )
    manager._token = "token"
    manager.close()
    assert thread.joins == [((), {"timeout": 1.0})]
    assert seen == [(None, None, False)]
    assert manager._refresh_thread is None


def test_closing_twice_returns_at_once_and_joins_nothing(manager: Any) -> None:
    manager.close()
    thread = manager._refresh_thread = FakeThread()
    before = snapshot(manager)
    manager.close()
    assert thread.joins == []
    assert changes(before, snapshot(manager)) == set()


def test_the_calling_thread_is_not_joined(manager: Any) -> None:
    manager._refresh_thread = threading.current_thread()
    Worker(lambda: None).finish()
    manager.close()
    assert manager._refresh_thread is None


# Waiters


def test_close_during_a_login_without_an_event_makes_its_runner_fail(
    manager: Any, server: FakeServer
) -> None:
    manager._state = "RE_AUTHENTICATING"
    gate = server.hold(VERIFY)
    runner = Worker(manager.authenticate)
    gate.reached()
    manager.close()
    gate.release()
    assert reason_of(runner.failure()) == "manager_closed"
    assert manager._state == "CLOSED"
    assert manager._token is None


def test_close_between_the_store_and_the_start_of_renewal_starts_no_thread(manager: Any) -> None:
    original = type(manager)._start_refresh

    def start() -> None:
        manager.close()
        original(manager)

    manager._start_refresh = start
    worker = Worker(manager.authenticate).finish()
    assert worker.error is None or reason_of(worker.error) == "manager_closed"
    assert manager._state == "CLOSED"
    assert manager._close_event.is_set()
    assert manager._refresh_thread is None
    assert refresh_threads(manager) == []


def test_no_thread_is_served_anything_after_close_has_returned(logged_in: Any) -> None:
    closed: list[float] = []
    late: list[Any] = []

    def serve() -> None:
        while True:
            was_closed = bool(closed)
            try:
                token = logged_in.get_token()
            except auth.AuthError as error:
                assert error.reason == "manager_closed"
                return
            if was_closed:
                late.append(token)

    workers = [Worker(serve) for _ in range(6)]
    time.sleep(0.02)
    logged_in.close()
    closed.append(time.monotonic())
    for worker in workers:
        worker.result()
    assert late == []


# Final and idempotent


@pytest.mark.parametrize(
    ("name", "args"),
    [
        ("authenticate", ()),
        ("get_token", ()),
        ("get_wallet_secret", ()),
        ("get_token_expiry", ()),
        ("set_display_name", ("Ada",)),
        ("notify_era_change", (5,)),
        ("_do_auth_flow", ()),
        ("_request_with_retry", ("POST", CHALLENGE)),
    ],
)
def test_every_later_call_is_manager_closed_without_a_request(
    logged_in: Any, server: FakeServer, name: str, args: tuple[Any, ...]
) -> None:
    logged_in.close()
    server.calls.clear()
    with pytest.raises(auth.AuthError) as caught:
        getattr(logged_in, name)(*args)
    assert reason_of(caught.value) == "manager_closed"
    assert server.calls == []
    assert logged_in._state == "CLOSED"


def test_the_address_still_answers(logged_in: Any) -> None:
    logged_in.close()
    assert logged_in.get_wallet_address() == ADDRESS


@pytest.mark.parametrize("name", ["_start_refresh", "_refresh_loop", "_do_refresh", "_background_reauth"])
def test_no_background_method_revives_a_closed_manager(logged_in: Any, server: FakeServer, name: str) -> None:
    logged_in.close()
    server.calls.clear()
    before = snapshot(logged_in)
    Worker(getattr(logged_in, name)).result(5.0)
    assert changes(before, snapshot(logged_in)) == set()
    assert refresh_threads(logged_in) == []


def test_logins_and_closes_racing_end_closed(make_manager: Callable[..., Any]) -> None:
    for _ in range(40):
        manager = make_manager()
        workers = [Worker(manager.authenticate) for _ in range(3)]
        closer = Worker(manager.close)
        closer.result()
        for worker in workers:
            worker.finish()
            assert worker.error is None or reason_of(worker.error) == "manager_closed"
        assert manager._state == "CLOSED"
        assert manager._token is None and manager._private_key is None
        assert manager._refresh_thread is None
    until(lambda: refresh_threads(None) == [], what="the end of every loop")


def test_era_changes_and_closes_racing_end_closed(make_manager: Callable[..., Any]) -> None:
    server = FakeServer()
    server.era = 100
    for _ in range(30):
        manager = make_manager(server=server)
        manager.authenticate()
        announcer = Worker(manager.notify_era_change, 5)
        closer = Worker(manager.close)
        closer.result()
        announcer.finish()
        assert announcer.error is None or reason_of(announcer.error) == "manager_closed"
        assert manager._state == "CLOSED"
        assert manager._token is None
    until(lambda: refresh_threads(None) == [], what="the end of every thread")


def test_close_uses_scripted_primitives_without_waiting_for_them(manager: Any) -> None:
    manager._auth_event = ScriptedEvent()
    manager._refresh_done = ScriptedEvent()
    manager.close()
    assert manager._auth_event.waits == []
    assert manager._refresh_done.waits == []


def test_wrong_arguments(manager: Any) -> None:
    with pytest.raises(TypeError, match="close"):
        manager.close(1)
    assert manager._state == "UNINITIALIZED"

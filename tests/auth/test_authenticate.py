"""`authenticate`: one runner, any number of waiters, a consistent state however it ends."""

from __future__ import annotations

import contextlib
import threading
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker, join, until, waiters

from .helpers.managers import (
    ADDRESS,
    KEY,
    changes,
    reason_of,
    refresh_threads,
    snapshot,
)
from .helpers.server import CHALLENGE, REGISTER, VERIFY, Answer, FakeServer
from .helpers.tokens import issued

FULL_LOGIN = [REGISTER, CHALLENGE, VERIFY]
FATAL = [KeyboardInterrupt("stop"), SystemExit(3), GeneratorExit("over")]


class OwnAuthError(auth.AuthError):
    pass


def held_runner(manager: Any, server: FakeServer, waiting: int) -> tuple[Worker, list[Worker], Any]:
    """A runner held in its challenge request, with this many callers waiting for it."""
    gate = server.hold(CHALLENGE)
    runner = Worker(manager.authenticate)
    gate.reached()
    others = [Worker(manager.authenticate) for _ in range(waiting)]
    until(lambda: waiters(manager._auth_event) == waiting, what=f"{waiting} waiters")
    return runner, others, gate


# Success


def test_a_login_stores_the_result_and_starts_renewal(manager: Any, server: FakeServer) -> None:
    server.recover = True
    assert manager.authenticate() is None
    assert server.paths == FULL_LOGIN
    assert manager._state == "AUTHENTICATED"
    assert manager._token == server.tokens[0]
    assert manager._wallet_secret == server.secret
    assert manager._token_expiry == 87400.0
    assert manager._auth_event.is_set()
    assert manager._refresh_thread.is_alive()
    assert manager._refresh_thread.daemon
    assert refresh_threads(manager) == [manager._refresh_thread]


def test_the_server_expiry_is_not_stored(manager: Any, server: FakeServer) -> None:
    server.script(VERIFY, Answer(200, server.verified(ADDRESS, expires_at=1)))
    manager.authenticate()
    assert manager._token_expiry == 87400.0


def test_during_the_flow_the_state_is_authenticating_with_a_fresh_clear_event(
    manager: Any, server: FakeServer
) -> None:
    seen: list[Any] = []

    def look(call: Any) -> None:
        event = manager._auth_event
        seen.append((manager._state, event.is_set(), manager._auth_error, manager._reauth_mode))
        seen.append((event, manager._lock.locked()))

    old_event = manager._auth_event = threading.Event()
    manager._auth_error = auth.AuthError(reason="old")
    manager._reauth_mode = "ERA_CHANGE"
    for path in FULL_LOGIN:
        server.script(path, look)
    manager.authenticate()
    assert seen[0::2] == [("AUTHENTICATING", False, None, None)] * 3
    assert [locked for _, locked in seen[1::2]] == [False] * 3
    assert len({id(event) for event, _ in seen[1::2]}) == 1
    assert seen[1][0] is not old_event
    assert type(seen[1][0]) is threading.Event
    assert not old_event.is_set()


def test_an_authenticated_manager_logs_in_again_when_asked(logged_in: Any, server: FakeServer) -> None:
    first, event = logged_in._token, logged_in._auth_event
    logged_in.authenticate()
    assert server.paths == FULL_LOGIN * 2
    assert logged_in._token == server.tokens[1] != first
    assert logged_in._auth_event is not event


def test_the_flow_used_is_the_plain_one(manager: Any, server: FakeServer) -> None:
    manager._do_auth_flow_matching_pending_era = lambda: pytest.fail("the era flow was run")
    manager.authenticate()
    assert server.paths == FULL_LOGIN


def test_a_login_that_meets_the_pending_era_clears_it(manager: Any, server: FakeServer) -> None:
    manager._pending_era_number = 4
    server.era = 4
    manager.authenticate()
    assert manager._pending_era_number is None


def test_a_login_below_the_pending_era_is_an_era_mismatch_after_one_flow(
    manager: Any, server: FakeServer
) -> None:
    manager._pending_era_number = 4
    server.era = 3
    with pytest.raises(auth.AuthError) as caught:
        manager.authenticate()
    assert reason_of(caught.value) == "era_mismatch"
    assert server.paths == FULL_LOGIN
    assert manager._state == "UNINITIALIZED"
    assert manager._pending_era_number == 4


# Decision by state


def test_authenticate_after_close_is_manager_closed_without_any_request(
    manager: Any, server: FakeServer
) -> None:
    manager._state = "CLOSED"
    before = snapshot(manager)
    with pytest.raises(auth.AuthError) as caught:
        manager.authenticate()
    assert reason_of(caught.value) == "manager_closed"
    assert server.calls == []
    assert changes(before, snapshot(manager)) == set()


@pytest.mark.parametrize("state", ["BOGUS", "", None, 5, "authenticated"])
def test_any_other_state_is_unexpected(manager: Any, server: FakeServer, state: Any) -> None:
    manager._state = state
    before = snapshot(manager)
    with pytest.raises(auth.AuthError) as caught:
        manager.authenticate()
    assert reason_of(caught.value) == "unexpected_auth_state"
    assert server.calls == []
    assert changes(before, snapshot(manager)) == set()


def test_states_are_compared_by_value(manager: Any, server: FakeServer) -> None:
    manager._state = "".join(["CLO", "SED"])
    with pytest.raises(auth.AuthError) as caught:
        manager.authenticate()
    assert reason_of(caught.value) == "manager_closed"


@pytest.mark.parametrize("state", ["AUTHENTICATING", "RE_AUTHENTICATING"])
def test_a_waiter_returns_when_the_event_is_set_without_a_flow(
    manager: Any, server: FakeServer, state: str
) -> None:
    manager._state = state
    manager._auth_event = threading.Event()
    waiter = Worker(manager.authenticate)
    until(lambda: waiters(manager._auth_event) == 1, what="the waiter")
    manager._auth_event.set()
    assert waiter.result() is None
    assert server.calls == []
    assert manager._state == state


def test_a_waiter_raises_the_stored_error_itself(manager: Any, server: FakeServer) -> None:
    manager._state = "RE_AUTHENTICATING"
    event = manager._auth_event = threading.Event()
    waiter = Worker(manager.authenticate)
    until(lambda: waiters(event) == 1, what="the waiter")
    error = manager._auth_error = OwnAuthError(reason="stored")
    event.set()
    assert waiter.failure() is error


def test_a_waiter_keeps_the_event_it_found(manager: Any) -> None:
    manager._state = "AUTHENTICATING"
    event = manager._auth_event = threading.Event()
    waiter = Worker(manager.authenticate)
    until(lambda: waiters(event) == 1, what="the waiter")
    manager._auth_event = threading.Event()
    event.set()
    assert waiter.result() is None


def test_a_waiter_starts_no_renewal(manager: Any) -> None:
    manager._state = "AUTHENTICATING"
    manager._auth_event = threading.Event()
    manager._auth_event.set()
    manager._start_refresh = lambda: pytest.fail("renewal was started")
    manager.authenticate()
    assert manager._refresh_thread is None


# Many callers


def test_64_threads_at_once_cause_one_challenge_and_one_verify_on_success(
    manager: Any, server: FakeServer
) -> None:
    runner, others, gate = held_runner(manager, server, 63)
    gate.release()
    for worker in [runner, *others]:
        assert worker.result() is None
    assert server.paths == FULL_LOGIN
    assert refresh_threads(manager) == [manager._refresh_thread]


def test_64_threads_at_once_cause_one_challenge_and_one_verify_on_failure(
    manager: Any, server: FakeServer
) -> None:
    server.always(VERIFY, Answer(401))
    runner, others, gate = held_runner(manager, server, 63)
    gate.release()
    error = runner.failure()
    assert reason_of(error) == "signature_mismatch"
    for worker in others:
        assert worker.failure() is error
    assert server.paths == FULL_LOGIN
    assert manager._auth_error is error
    assert manager._refresh_thread is None


def test_64_threads_from_a_barrier_make_one_flow_at_a_time(manager: Any, server: FakeServer) -> None:
    inside, most = [], []

    def count_in(call: Any) -> None:
        inside.append(1)
        most.append(len(inside))

    def count_out(call: Any) -> None:
        inside.pop()

    server.always(REGISTER, count_in)
    server.always(VERIFY, count_out)
    barrier = threading.Barrier(64)

    def login() -> None:
        barrier.wait(10.0)
        manager.authenticate()

    for worker in [Worker(login) for _ in range(64)]:
        assert worker.result(30.0) is None
    assert max(most) == 1
    assert manager._state == "AUTHENTICATED"
    assert manager._token == server.tokens[-1]
    until(lambda: len(refresh_threads(manager)) == 1, what="a single refresh loop")


# Failure


def test_a_failed_first_login_goes_back_to_uninitialized(manager: Any, server: FakeServer) -> None:
    server.always(VERIFY, Answer(401))
    with pytest.raises(auth.AuthError) as caught:
        manager.authenticate()
    assert manager._state == "UNINITIALIZED"
    assert manager._auth_error is caught.value
    assert manager._auth_event.is_set()
    assert manager._reauth_mode is None
    assert manager._token is None
    assert manager._refresh_thread is None


def test_a_failed_login_can_be_tried_again(manager: Any, server: FakeServer) -> None:
    server.script(VERIFY, Answer(401))
    with pytest.raises(auth.AuthError):
        manager.authenticate()
    manager.authenticate()
    assert manager._state == "AUTHENTICATED"
    assert manager._auth_error is None


def test_a_subclass_of_auth_error_is_recorded_as_it_is(manager: Any) -> None:
    error = OwnAuthError(reason="own")

    def flow() -> Any:
        raise error

    manager._do_auth_flow = flow
    with pytest.raises(OwnAuthError) as caught:
        manager.authenticate()
    assert caught.value is error
    assert manager._auth_error is error


@pytest.mark.parametrize(
    ("answer", "kind", "reason"),
    [
        (Answer(200, {"expires_at": 1, "wallet_secret": "AA=="}), KeyError, "'token'"),
        (Answer(404), auth.NetworkError, "stale authentication challenge after 3 attempts"),
        (RuntimeError("transport broke"), RuntimeError, "transport broke"),
    ],
    ids=["missing token", "stale challenges", "transport"],
)
def test_an_error_that_is_no_auth_error_goes_to_the_runner_and_its_text_to_the_waiters(
    manager: Any, server: FakeServer, answer: Any, kind: type[Exception], reason: str
) -> None:
    server.always(VERIFY, answer)
    runner, others, gate = held_runner(manager, server, 3)
    gate.release()
    error = runner.failure()
    assert type(error) is kind
    assert str(error) == reason
    recorded = others[0].failure()
    assert reason_of(recorded) == reason
    for worker in others:
        assert worker.failure() is recorded
    assert manager._auth_error is recorded
    assert manager._state == "UNINITIALIZED"


def test_a_refused_invite_reaches_the_waiters_as_an_auth_error(manager: Any, server: FakeServer) -> None:
    gate = server.hold(REGISTER)
    server.script(REGISTER, Answer(403, {"error": "invite_required"}))
    runner = Worker(manager.authenticate)
    gate.reached()
    waiter = Worker(manager.authenticate)
    until(lambda: waiters(manager._auth_event) == 1, what="the waiter")
    gate.release()
    error = runner.failure()
    assert type(error) is auth.RegistrationError and error.args == ("invite_required",)
    assert reason_of(waiter.failure()) == "invite_required"


def test_a_failed_login_on_an_authenticated_manager_keeps_the_old_token(
    logged_in: Any, server: FakeServer
) -> None:
    old = snapshot(logged_in)
    server.always(VERIFY, Answer(401))
    with pytest.raises(auth.AuthError) as caught:
        logged_in.authenticate()
    assert logged_in._state == "AUTHENTICATED"
    assert logged_in._auth_error is caught.value
    for name in ("_token", "_token_expiry", "_token_iat", "_wallet_secret", "_refresh_at", "_auth_time"):
        assert getattr(logged_in, name) is old[name]
    assert logged_in._auth_event.is_set()


def test_a_failed_login_without_a_token_held_goes_to_uninitialized(
    logged_in: Any, server: FakeServer
) -> None:
    logged_in._token = None
    server.always(VERIFY, Answer(401))
    with pytest.raises(auth.AuthError):
        logged_in.authenticate()
    assert logged_in._state == "UNINITIALIZED"


def test_a_failed_login_from_uninitialized_with_a_token_held_goes_back_to_uninitialized(
    logged_in: Any, server: FakeServer
) -> None:
    logged_in._state = "UNINITIALIZED"
    server.always(VERIFY, Answer(401))
    with pytest.raises(auth.AuthError):
        logged_in.authenticate()
    assert logged_in._state == "UNINITIALIZED"
    assert logged_in._token is not None


def test_the_restoration_applies_only_while_authenticating(manager: Any, server: FakeServer) -> None:
    def look(call: Any) -> Any:
        manager._state = "RE_AUTHENTICATING"
        manager._reauth_mode = "ERA_CHANGE"
        return Answer(401)

    server.script(VERIFY, look)
    with pytest.raises(auth.AuthError) as caught:
        manager.authenticate()
    assert manager._state == "RE_AUTHENTICATING"
    assert manager._reauth_mode == "ERA_CHANGE"
    assert manager._auth_error is caught.value
    assert manager._auth_event.is_set()


def test_a_mode_set_during_the_flow_is_none_after_its_failure(manager: Any, server: FakeServer) -> None:
    def look(call: Any) -> Any:
        manager._reauth_mode = "ERA_CHANGE"
        return Answer(401)

    server.script(VERIFY, look)
    with pytest.raises(auth.AuthError):
        manager.authenticate()
    assert manager._reauth_mode is None


def test_an_event_removed_during_the_flow_is_not_missed(manager: Any, server: FakeServer) -> None:
    def look(call: Any) -> Any:
        manager._auth_event = None
        return Answer(401)

    server.script(VERIFY, look)
    with pytest.raises(auth.AuthError) as caught:
        manager.authenticate()
    assert reason_of(caught.value) == "signature_mismatch"
    assert manager._state == "UNINITIALIZED"
    assert manager._auth_event is None


@pytest.mark.parametrize("answer", [None, Answer(401)], ids=["it succeeds", "it fails"])
def test_who_waits_for_a_login_is_woken_though_its_event_is_the_managers_no_more(
    manager: Any, server: FakeServer, answer: Answer | None
) -> None:
    events: list[threading.Event] = []

    def look(call: Any) -> Any:
        events.append(manager._auth_event)
        manager._auth_event = threading.Event()
        return answer

    server.script(VERIFY, look)
    with contextlib.suppress(auth.AuthError):
        manager.authenticate()
    assert events[0].is_set()


@pytest.mark.parametrize("result", [("t", 1), ("t", 1, b"s", 4), None])
def test_a_flow_result_of_another_shape_fails_and_restores(manager: Any, result: Any) -> None:
    manager._do_auth_flow = lambda: result
    with pytest.raises((ValueError, TypeError)):
        manager.authenticate()
    assert manager._state == "UNINITIALIZED"
    assert manager._auth_event.is_set()


def test_a_refused_store_fails_and_restores(logged_in: Any, server: FakeServer) -> None:
    old = logged_in._token
    server.secret = b"another secret"
    with pytest.raises(auth.AuthError) as caught:
        logged_in.authenticate()
    assert reason_of(caught.value) == "wallet_secret_changed"
    assert logged_in._state == "AUTHENTICATED"
    assert logged_in._token is old


@pytest.mark.parametrize("error", [RuntimeError("no time"), *FATAL], ids=repr)
def test_a_raising_clock_leaves_the_manager_as_it_was(
    logged_in: Any, clock: HandClock, server: FakeServer, error: BaseException
) -> None:
    logged_in._refresh_stop.set()
    logged_in._refresh_thread.join(5.0)
    old = snapshot(logged_in)

    def break_clock(call: Any) -> None:
        clock.error = error

    server.script(VERIFY, break_clock)
    logged_in._start_refresh = lambda: None
    with pytest.raises(type(error)) as caught:
        logged_in.authenticate()
    clock.error = None
    assert caught.value is error
    assert logged_in._state == "AUTHENTICATED"
    assert changes(old, snapshot(logged_in)) <= {"_auth_event", "_auth_error"}
    assert logged_in._auth_event.is_set()
    assert reason_of(logged_in._auth_error) == str(error)


def test_an_auth_error_of_start_refresh_is_recorded_and_raised_with_the_result_in_place(
    manager: Any, server: FakeServer
) -> None:
    error = auth.AuthError(reason="no thread")

    def start() -> None:
        raise error

    manager._start_refresh = start
    with pytest.raises(auth.AuthError) as caught:
        manager.authenticate()
    assert caught.value is error
    assert manager._auth_error is error
    assert manager._state == "AUTHENTICATED"
    assert manager._token == server.tokens[0]
    assert manager._auth_event.is_set()


# However it ends


@pytest.mark.parametrize("error", FATAL, ids=repr)
@pytest.mark.parametrize("place", FULL_LOGIN)
def test_interruption_out_of_the_transport_releases_the_waiters_and_restores(
    manager: Any, server: FakeServer, error: BaseException, place: str
) -> None:
    gate = server.hold(place)
    server.script(place, error)
    runner = Worker(manager.authenticate)
    gate.reached()
    others = [Worker(manager.authenticate) for _ in range(3)]
    until(lambda: waiters(manager._auth_event) == 3, what="the waiters")
    gate.release()
    assert runner.failure() is error
    for worker in others:
        assert isinstance(worker.failure(), auth.AuthError)
    assert manager._state == "UNINITIALIZED"
    assert manager._auth_event.is_set()
    assert not manager._lock.locked()


@pytest.mark.parametrize("error", FATAL, ids=repr)
def test_interruption_on_an_authenticated_manager_restores_it(
    logged_in: Any, server: FakeServer, error: BaseException
) -> None:
    server.script(CHALLENGE, error)
    with pytest.raises(type(error)) as caught:
        logged_in.authenticate()
    assert caught.value is error
    assert logged_in._state == "AUTHENTICATED"
    assert logged_in._token == server.tokens[0]


def test_an_error_without_a_text_form_still_releases_the_waiters(manager: Any, server: FakeServer) -> None:
    class Unspeakable(Exception):
        def __str__(self) -> str:
            raise RuntimeError("no words")

    gate = server.hold(CHALLENGE)
    server.script(CHALLENGE, Unspeakable())
    runner = Worker(manager.authenticate)
    gate.reached()
    waiter = Worker(manager.authenticate)
    until(lambda: waiters(manager._auth_event) == 1, what="the waiter")
    gate.release()
    assert isinstance(runner.failure(), Unspeakable | RuntimeError)
    assert isinstance(waiter.failure(), auth.AuthError)
    assert manager._state == "UNINITIALIZED"


# No event to wait for


def test_re_authenticating_without_an_event_runs_a_flow_of_its_own(manager: Any, server: FakeServer) -> None:
    seen: list[Any] = []
    server.script(VERIFY, lambda call: seen.append((manager._state, manager._auth_event)))
    manager._state = "RE_AUTHENTICATING"
    manager.authenticate()
    assert server.paths == FULL_LOGIN
    assert seen == [("RE_AUTHENTICATING", None)]
    assert manager._state == "AUTHENTICATED"
    assert manager._token == server.tokens[0]
    assert manager._auth_event is None
    assert manager._refresh_thread.is_alive()


def test_re_authenticating_without_an_event_stays_so_when_the_own_flow_fails(
    manager: Any, server: FakeServer
) -> None:
    manager._state = "RE_AUTHENTICATING"
    manager._reauth_mode = "ERA_CHANGE"
    server.always(VERIFY, Answer(401))
    with pytest.raises(auth.AuthError) as caught:
        manager.authenticate()
    assert manager._state == "RE_AUTHENTICATING"
    assert manager._auth_error is caught.value
    assert manager._auth_event is None
    assert manager._reauth_mode == "ERA_CHANGE"


def test_authenticating_without_an_event_goes_to_uninitialized_when_the_own_flow_fails(
    manager: Any, server: FakeServer
) -> None:
    manager._state = "AUTHENTICATING"
    manager._token = "held"
    server.always(VERIFY, RuntimeError("broke"))
    with pytest.raises(RuntimeError):
        manager.authenticate()
    assert manager._state == "UNINITIALIZED"
    assert reason_of(manager._auth_error) == "broke"


def test_an_old_error_stays_during_the_own_flow(manager: Any, server: FakeServer) -> None:
    old = manager._auth_error = auth.AuthError(reason="old")
    seen: list[Any] = []
    server.script(VERIFY, lambda call: seen.append(manager._auth_error))
    manager._state = "RE_AUTHENTICATING"
    manager.authenticate()
    assert seen == [old]
    assert manager._auth_error is None


# Closed meanwhile


@pytest.mark.parametrize("state", ["UNINITIALIZED", "RE_AUTHENTICATING"])
def test_a_manager_closed_meanwhile_stores_nothing_and_starts_nothing(
    manager: Any, server: FakeServer, state: str
) -> None:
    manager._state = state

    def close(call: Any) -> None:
        manager._state = "CLOSED"

    server.script(VERIFY, close)
    with pytest.raises(auth.AuthError) as caught:
        manager.authenticate()
    assert reason_of(caught.value) == "manager_closed"
    assert manager._state == "CLOSED"
    assert manager._token is None
    assert manager._wallet_secret is None
    assert manager._token_expiry is None
    assert manager._refresh_thread is None
    assert refresh_threads(manager) == []


def test_waiters_of_a_runner_whose_manager_was_closed_meanwhile_are_released(
    manager: Any, server: FakeServer
) -> None:
    runner, others, gate = held_runner(manager, server, 3)
    manager._state = "CLOSED"
    gate.release()
    assert reason_of(runner.failure()) == "manager_closed"
    for worker in others:
        assert reason_of(worker.failure()) == "manager_closed"
    assert manager._state == "CLOSED"


def test_a_failing_flow_of_a_closed_manager_leaves_it_closed(manager: Any, server: FakeServer) -> None:
    def close(call: Any) -> Any:
        manager._state = "CLOSED"
        return Answer(401)

    server.script(VERIFY, close)
    with pytest.raises(auth.AuthError):
        manager.authenticate()
    assert manager._state == "CLOSED"


# Renewal


def test_renewal_is_started_after_the_store_with_the_lock_free(manager: Any) -> None:
    seen: list[Any] = []
    manager._start_refresh = lambda: seen.append((manager._state, manager._lock.locked()))
    manager.authenticate()
    assert seen == [("AUTHENTICATED", False)]


@pytest.mark.parametrize(
    "answer",
    [Answer(401), KeyboardInterrupt("stop"), RuntimeError("broke")],
    ids=lambda it: type(it).__name__,
)
def test_a_failed_login_that_goes_back_to_authenticated_starts_renewal_where_no_loop_lives(
    logged_in: Any, server: FakeServer, answer: Any
) -> None:
    dead = logged_in._refresh_thread
    logged_in._refresh_stop.set()
    join(dead)
    server.always(VERIFY, answer)
    with pytest.raises((auth.AuthError, KeyboardInterrupt, RuntimeError)):
        logged_in.authenticate()
    assert logged_in._state == "AUTHENTICATED"
    assert logged_in._refresh_thread is not dead
    assert logged_in._refresh_thread.is_alive()
    assert refresh_threads(logged_in) == [logged_in._refresh_thread]


# Seams


def test_the_flow_and_the_store_of_the_instance_are_used(manager: Any) -> None:
    stored: list[Any] = []
    manager._do_auth_flow = lambda: ("token", 99, b"secret")
    manager._store_auth_result = lambda *args: stored.append((args, manager._lock.locked()))
    manager._start_refresh = lambda: stored.append("started")
    manager.authenticate()
    assert stored == [(("token", b"secret"), True), "started"]


def test_a_subclass_may_replace_flow_store_and_start(make_manager: Callable[..., Any]) -> None:
    class Own(auth.AuthManager):
        steps: list[str]

        def _do_auth_flow(self) -> Any:
            self.steps = ["flow"]
            return issued(ADDRESS), 1, b"x"

        def _store_auth_result(self, token: str, wallet_secret_bytes: bytes) -> None:
            self.steps.append("store")
            super()._store_auth_result(token, wallet_secret_bytes)

        def _start_refresh(self) -> None:
            self.steps.append("start")

    manager = make_manager(cls=Own)
    manager.authenticate()
    assert manager.steps == ["flow", "store", "start"]
    assert manager._state == "AUTHENTICATED"


# Secrets


def test_nothing_secret_in_what_a_failed_login_shows(
    logged_in: Any, server: FakeServer, caplog: pytest.LogCaptureFixture
) -> None:
    caplog.set_level(0)
    server.secret = b"the changed secret of the wallet"
    with pytest.raises(auth.AuthError) as caught:
        logged_in.authenticate()
    shown = f"{caught.value!r} {logged_in._auth_error!r} {logged_in!r} {caplog.text}"
    signature = server.last(VERIFY).body["signature"]
    for secret in (KEY, *server.tokens, signature, "the changed secret", bytes(range(32)).hex()):
        assert secret not in shown


@pytest.mark.parametrize("args", [(1,), (KEY, KEY)])
def test_wrong_arguments(manager: Any, server: FakeServer, args: tuple[Any, ...]) -> None:
    with pytest.raises(TypeError, match="authenticate") as caught:
        manager.authenticate(*args)
    assert KEY not in str(caught.value)
    assert server.calls == []

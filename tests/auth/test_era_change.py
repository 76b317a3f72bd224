"""Era announcements to a manager, and the background re-authentication that they start."""

from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.modules import StandIn
from tests.shared.threads import Worker, until

from .helpers.managers import ADDRESS, changes, reason_of, refresh_threads, snapshot
from .helpers.server import CHALLENGE, REGISTER, VERIFY, Answer, FakeServer
from .helpers.tokens import issued

FULL_LOGIN = [REGISTER, CHALLENGE, VERIFY]


class OwnAuthError(auth.AuthError):
    pass


@pytest.fixture
def idle(manager: Any) -> Any:
    """A logged-in manager without a refresh thread; starts of one are only counted."""
    manager._start_refresh = lambda: None
    manager.authenticate()
    manager.starts = []
    manager._start_refresh = lambda: manager.starts.append(manager._state)
    return manager


class NoThread:
    """A thread that is only recorded."""

    made: list[NoThread]

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        self.args, self.kwargs, self.started = args, kwargs, False
        type(self).made.append(self)

    def start(self) -> None:
        self.started = True

    def join(self, timeout: float | None = None) -> None:
        pass


@pytest.fixture
def threads(idle: Any, monkeypatch: pytest.MonkeyPatch) -> type[NoThread]:
    class Thread(NoThread):
        made: list[NoThread] = []  # noqa: RUF012

    monkeypatch.setattr(auth, "threading", StandIn(threading, Thread=Thread))
    return Thread


def failure(manager: Any, number: Any, kind: type[Exception] = auth.AuthError) -> Any:
    before = snapshot(manager)
    with pytest.raises(kind) as caught:
        manager.notify_era_change(number)
    assert changes(before, snapshot(manager)) == set()
    return caught.value


# The announcement


@pytest.mark.parametrize("number", [0, -1, -(10**30)])
@pytest.mark.parametrize("state", ["CLOSED", "UNINITIALIZED", "AUTHENTICATED", "RE_AUTHENTICATING"])
def test_zero_and_negative_numbers_are_a_value_error_in_every_state(
    manager: Any, number: int, state: str
) -> None:
    manager._state = state
    error = failure(manager, number, ValueError)
    assert type(error) is ValueError
    assert str(error) == f"era_number must be > 0, got {number}"
    manager._state = "UNINITIALIZED"


def test_a_bad_number_takes_no_lock(manager: Any) -> None:
    with manager._lock:
        assert isinstance(Worker(manager.notify_era_change, 0).failure(5.0), ValueError)


@pytest.mark.parametrize("number", [None, "5", [5]])
def test_a_number_that_cannot_be_compared_is_a_type_error(manager: Any, number: Any) -> None:
    failure(manager, number, TypeError)


def test_on_a_closed_manager_it_is_manager_closed(manager: Any) -> None:
    manager.close()
    assert reason_of(failure(manager, 5)) == "manager_closed"


def test_before_the_first_login_it_is_refused_and_not_remembered(manager: Any) -> None:
    assert reason_of(failure(manager, 5)) == "not_authenticated"
    assert manager._pending_era_number is None


@pytest.mark.parametrize("state", ["AUTHENTICATING", "RE_AUTHENTICATING"])
@pytest.mark.parametrize(
    ("before", "number", "after"), [(None, 5, 5), (5, 3, 5), (3, 5, 5), (5, 5, 5), (5, 6, 6)]
)
def test_while_authenticating_the_requirement_is_only_raised(
    manager: Any, state: str, before: int | None, number: int, after: int
) -> None:
    manager._state = state
    manager._pending_era_number = before
    manager._reauth_mode = "PROACTIVE"
    old = snapshot(manager)
    assert manager.notify_era_change(number) is None
    assert manager._pending_era_number == after
    assert manager._reauth_mode == "ERA_CHANGE"
    assert changes(old, snapshot(manager)) <= {"_pending_era_number", "_reauth_mode"}
    assert not manager._refresh_event.is_set()
    manager._state = "UNINITIALIZED"


def test_announcing_5_then_3_while_re_authenticating_leaves_5_and_3_then_5_raises_to_5(manager: Any) -> None:
    manager._state = "RE_AUTHENTICATING"
    for number in (5, 3):
        manager.notify_era_change(number)
    assert manager._pending_era_number == 5
    manager._pending_era_number = None
    for number in (3, 5):
        manager.notify_era_change(number)
    assert manager._pending_era_number == 5
    manager._state = "UNINITIALIZED"


def test_on_an_authenticated_manager_the_state_is_re_authenticating_when_it_returns(
    idle: Any, threads: type[NoThread]
) -> None:
    old_event = idle._auth_event
    idle._auth_error = auth.AuthError(reason="old")
    assert idle.notify_era_change(5) is None
    assert idle._state == "RE_AUTHENTICATING"
    assert idle._reauth_mode == "ERA_CHANGE"
    assert idle._pending_era_number == 5
    assert type(idle._auth_event) is threading.Event
    assert idle._auth_event is not old_event and not idle._auth_event.is_set()
    assert idle._auth_error is None
    assert idle._refresh_event.is_set()
    assert not idle._lock.locked()


@pytest.mark.parametrize(("before", "after"), [(None, 5), (4, 5), (5, 5), (9, 9)])
def test_on_an_authenticated_manager_a_higher_pending_era_stays(
    idle: Any, threads: type[NoThread], before: int | None, after: int
) -> None:
    idle._pending_era_number = before
    idle.notify_era_change(5)
    assert idle._pending_era_number == after
    assert len(threads.made) == 1


def test_one_daemon_thread_without_name_is_started_and_not_stored(idle: Any, threads: type[NoThread]) -> None:
    stored = idle._refresh_thread
    idle.notify_era_change(5)
    (thread,) = threads.made
    assert thread.args == ()
    assert set(thread.kwargs) == {"target", "daemon"}
    assert thread.kwargs["daemon"] is True
    assert thread.kwargs["target"] == idle._background_reauth
    assert thread.started
    assert idle._refresh_thread is stored


def test_repeated_announcements_start_no_further_thread(idle: Any, threads: type[NoThread]) -> None:
    for number in (5, 6, 4, 7):
        idle.notify_era_change(number)
    assert len(threads.made) == 1
    assert idle._pending_era_number == 7


@pytest.mark.parametrize("call", ["get_token", "authenticate"])
def test_a_thread_that_ends_before_its_first_line_leaves_nobody_waiting(
    call: str, idle: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    class Stillborn(threading.Thread):
        def run(self) -> None:
            pass

    monkeypatch.setattr(auth, "threading", StandIn(threading, Thread=Stillborn))
    idle.notify_era_change(5)
    error = Worker(getattr(idle, call)).failure()
    assert reason_of(error) == "the thread of the re-authentication ended before it began"
    assert error is idle._auth_error
    assert (idle._state, idle._pending_era_number) == ("AUTHENTICATED", 5)


def test_number_may_be_a_keyword(idle: Any, threads: type[NoThread]) -> None:
    assert idle.notify_era_change(new_era_number=5) is None
    assert idle._pending_era_number == 5


# The background flow


def begin(manager: Any, pending: int = 5) -> None:
    manager._state = "RE_AUTHENTICATING"
    manager._reauth_mode = "ERA_CHANGE"
    manager._pending_era_number = pending
    manager._auth_event = threading.Event()
    manager._auth_error = None
    manager._refresh_done.clear()


def flow_of(manager: Any, outcome: Any) -> None:
    def flow() -> Any:
        if isinstance(outcome, BaseException):
            raise outcome
        return outcome

    manager._do_auth_flow_matching_pending_era = flow


def test_background_flow_stores_the_result_and_starts_renewal(idle: Any) -> None:
    begin(idle)
    token = issued(ADDRESS, 5)
    flow_of(idle, (token, 1, bytes(range(32))))
    assert idle._background_reauth() is None
    assert idle._token is token
    assert idle._state == "AUTHENTICATED"
    assert idle._pending_era_number is None
    assert idle._reauth_mode is None
    assert idle._auth_event.is_set()
    assert idle._refresh_done.is_set()
    assert idle.starts == ["AUTHENTICATED"]


@pytest.mark.parametrize(
    ("error", "permanent"),
    [
        (auth.AuthError(reason="era_mismatch"), False),
        (auth.AuthError(reason="signature_mismatch"), True),
        (OwnAuthError(reason="invalid_address"), True),
    ],
    ids=repr,
)
def test_background_flow_failing_with_an_auth_error_records_it_itself(
    idle: Any, error: auth.AuthError, permanent: bool
) -> None:
    begin(idle)
    flow_of(idle, error)
    assert idle._background_reauth() is None
    assert idle._auth_error is error
    assert idle._permanent_refresh_error is permanent
    assert idle._state == "AUTHENTICATED"
    assert idle._reauth_mode is None
    assert idle._pending_era_number == 5
    assert idle._auth_event.is_set()
    assert not idle._refresh_done.is_set()
    assert idle.starts == []


@pytest.mark.parametrize(
    ("error", "reason"),
    [
        (auth.NetworkError("Server unreachable after 3 attempts"), "Server unreachable after 3 attempts"),
        (auth.RegistrationError("signature_mismatch"), "signature_mismatch"),
        (KeyError("token"), "'token'"),
        (KeyboardInterrupt("k"), "k"),
        (SystemExit("s"), "s"),
        (GeneratorExit("g"), "g"),
    ],
    ids=repr,
)
def test_background_flow_ended_by_anything_else_records_its_text(
    idle: Any, error: BaseException, reason: str
) -> None:
    begin(idle)
    flow_of(idle, error)
    assert idle._background_reauth() is None
    assert reason_of(idle._auth_error) == reason
    assert idle._permanent_refresh_error is False
    assert idle._state == "AUTHENTICATED"
    assert idle._reauth_mode is None
    assert idle._pending_era_number == 5
    assert idle._auth_event.is_set()
    assert not idle._refresh_done.is_set()


def test_background_flow_without_an_event_sets_none(idle: Any) -> None:
    begin(idle)
    idle._auth_event = None
    flow_of(idle, RuntimeError("x"))
    idle._background_reauth()
    assert idle._auth_event is None
    assert idle._state == "AUTHENTICATED"


def test_background_flow_refused_by_the_store_is_recorded(idle: Any) -> None:
    begin(idle)
    flow_of(idle, (issued(ADDRESS, 5), 1, b"another secret"))
    idle._background_reauth()
    assert reason_of(idle._auth_error) == "wallet_secret_changed"
    assert idle._state == "AUTHENTICATED"


@pytest.mark.parametrize(
    "outcome",
    [(issued(ADDRESS, 5), 1, bytes(range(32))), auth.AuthError(reason="invalid_address"), RuntimeError("x")],
    ids=["result", "auth error", "other error"],
)
def test_closed_while_the_background_flow_runs_nothing_is_stored_and_no_event_set(
    idle: Any, outcome: Any
) -> None:
    old = idle._token
    begin(idle)

    def flow() -> Any:
        idle._state = "CLOSED"
        if isinstance(outcome, BaseException):
            raise outcome
        return outcome

    idle._do_auth_flow_matching_pending_era = flow
    assert idle._background_reauth() is None
    assert idle._state == "CLOSED"
    assert idle._token is old
    assert idle._auth_error is None
    assert not idle._auth_event.is_set()
    assert idle.starts == []
    idle._state = "AUTHENTICATED"


def test_an_auth_error_without_a_reason_leaves_no_re_authentication_under_way(idle: Any) -> None:
    class Bare(auth.AuthError):
        def __init__(self) -> None:
            pass

    begin(idle)
    flow_of(idle, Bare())
    worker = Worker(idle._background_reauth).finish()
    assert worker.error is None or isinstance(worker.error, AttributeError)
    assert idle._state == "AUTHENTICATED"
    assert idle._auth_event.is_set()


# With real threads


def test_an_announced_era_brings_its_token_and_renewal_goes_on(logged_in: Any, server: FakeServer) -> None:
    server.era = 5
    logged_in.notify_era_change(5)
    assert logged_in.get_token() == server.tokens[1]
    assert logged_in._pending_era_number is None
    until(lambda: refresh_threads(logged_in) == [logged_in._refresh_thread], what="a single refresh loop")


def test_the_announcement_does_not_wait_for_the_server(logged_in: Any, server: FakeServer) -> None:
    gate = server.hold(REGISTER)
    server.era = 5
    worker = Worker(logged_in.notify_era_change, 5)
    assert worker.result(2.0) is None
    gate.reached()
    assert server.calls[-1].thread is not worker.thread
    assert server.calls[-1].thread.daemon
    gate.release()
    assert logged_in.get_token() == server.tokens[1]


def test_a_failed_era_change_is_what_callers_get_until_the_next_announcement(
    logged_in: Any, server: FakeServer
) -> None:
    server.era = 4
    logged_in.notify_era_change(5)
    with pytest.raises(auth.AuthError) as caught:
        logged_in.get_token()
    assert reason_of(caught.value) == "era_mismatch"
    until(lambda: logged_in._state == "AUTHENTICATED", what="the end of the flow")
    with pytest.raises(auth.AuthError) as again:
        logged_in.get_token()
    assert again.value is caught.value is logged_in._auth_error
    assert logged_in._pending_era_number == 5
    server.era = 5
    logged_in.notify_era_change(3)
    assert logged_in.get_token() == server.tokens[-1]


def test_an_era_raised_during_the_flow_is_met_by_its_second_run(logged_in: Any, server: FakeServer) -> None:
    gate = server.hold(VERIFY)
    server.era = 5
    logged_in.notify_era_change(5)
    gate.reached()
    logged_in.notify_era_change(6)

    def later(call: Any) -> None:
        server.era = 6

    server.script(REGISTER, later)
    gate.release()
    assert auth._jwt_era_number(logged_in.get_token()) == 6
    assert server.count(VERIFY) == 3


def test_an_era_announced_during_a_login_is_met_by_its_result_or_refused(
    manager: Any, server: FakeServer
) -> None:
    gate = server.hold(CHALLENGE)
    runner = Worker(manager.authenticate)
    gate.reached()
    manager.notify_era_change(5)
    gate.release()
    assert reason_of(runner.failure()) == "era_mismatch"
    assert manager._pending_era_number == 5
    assert manager._state == "UNINITIALIZED"


def test_an_era_during_a_proactive_refresh_is_met_by_that_refresh(
    logged_in: Any, server: FakeServer, clock: HandClock
) -> None:
    gate = server.hold(REGISTER)
    clock.now = logged_in._refresh_at
    gate.reached()
    assert logged_in._reauth_mode == "PROACTIVE"
    logged_in.notify_era_change(5)
    assert logged_in._reauth_mode == "ERA_CHANGE"
    server.era = 5
    gate.release()
    assert logged_in.get_token() == server.tokens[1]
    assert server.paths == FULL_LOGIN * 2


def test_a_subclass_may_replace_the_background_flow(make_manager: Callable[..., Any]) -> None:
    ran = threading.Event()

    class Own(auth.AuthManager):
        def _background_reauth(self) -> None:
            ran.set()

    manager = make_manager(cls=Own)
    manager.authenticate()
    manager.notify_era_change(5)
    assert ran.wait(5.0)


@pytest.mark.parametrize(
    ("name", "args"),
    [("notify_era_change", ()), ("notify_era_change", (1, 2)), ("_background_reauth", (1,))],
)
def test_wrong_arguments(manager: Any, name: str, args: tuple[Any, ...]) -> None:
    with pytest.raises(TypeError, match=name):
        getattr(manager, name)(*args)


def test_a_failed_server_answer_during_an_era_change_keeps_the_old_token_stored(
    logged_in: Any, server: FakeServer
) -> None:
    server.always(VERIFY, Answer(401))
    logged_in.notify_era_change(5)
    with pytest.raises(auth.AuthError) as caught:
        logged_in.get_token()
    assert reason_of(caught.value) == "signature_mismatch"
    until(lambda: logged_in._state == "AUTHENTICATED", what="the end of the flow")
    assert logged_in._token == server.tokens[0]
    assert logged_in._permanent_refresh_error is True

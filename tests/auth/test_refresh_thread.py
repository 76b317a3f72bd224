"""The proactive refresh: starting its thread, and the passes of its loop."""

from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.modules import StandIn
from tests.shared.threads import Worker, join, until

from .helpers.clocks import ScriptedEvent
from .helpers.managers import changes, reason_of, refresh_threads, snapshot
from .helpers.server import CHALLENGE, REGISTER, VERIFY, Answer, FakeServer

FULL_LOGIN = [REGISTER, CHALLENGE, VERIFY]


# Starting


class FakeThread:
    """Replaces a thread: records how it was made and started."""

    made: list[FakeThread]
    manager: Any = None
    error: BaseException | None = None

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        self.args, self.kwargs = args, kwargs
        self.before: Any = None
        self.locked: bool | None = None
        self.started = False
        type(self).made.append(self)

    def start(self) -> None:
        self.before = self.manager._refresh_thread
        self.locked = self.manager._lock.locked()
        if self.error is not None:
            raise self.error
        self.started = True

    def join(self, timeout: float | None = None) -> None:
        pass

    def is_alive(self) -> bool:
        return self.started


@pytest.fixture
def threads(manager: Any, monkeypatch: pytest.MonkeyPatch) -> type[FakeThread]:
    class Thread(FakeThread):
        made: list[FakeThread] = []  # noqa: RUF012

    Thread.manager = manager
    monkeypatch.setattr(auth, "threading", StandIn(threading, Thread=Thread))
    return Thread


def test_start_clears_the_four_events(manager: Any, threads: type[FakeThread]) -> None:
    names = ("_refresh_stop", "_close_event", "_refresh_pending", "_refresh_done")
    for name in (*names, "_refresh_event"):
        getattr(manager, name).set()
    assert manager._start_refresh() is None
    assert [getattr(manager, name).is_set() for name in names] == [False] * 4
    assert manager._refresh_event.is_set()


def test_start_makes_a_daemon_thread_without_name_or_arguments(
    manager: Any, threads: type[FakeThread]
) -> None:
    manager._start_refresh()
    (thread,) = threads.made
    assert thread.args == ()
    assert set(thread.kwargs) == {"target", "daemon"}
    assert thread.kwargs["daemon"] is True
    assert thread.kwargs["target"] == manager._refresh_loop
    assert thread.started


def test_start_stores_the_thread_only_after_starting_it(manager: Any, threads: type[FakeThread]) -> None:
    previous = manager._refresh_thread = object()
    manager._start_refresh()
    (thread,) = threads.made
    assert thread.before is previous
    assert manager._refresh_thread is thread


def test_start_changes_nothing_else(manager: Any, threads: type[FakeThread]) -> None:
    before = snapshot(manager)
    manager._start_refresh()
    assert changes(before, snapshot(manager)) == {"_refresh_thread"}


def test_start_on_a_closed_manager_clears_no_event_and_starts_no_thread(
    manager: Any, threads: type[FakeThread]
) -> None:
    manager._state = "CLOSED"
    for name in ("_refresh_stop", "_close_event", "_refresh_pending", "_refresh_done"):
        getattr(manager, name).set()
    before = snapshot(manager)
    assert manager._start_refresh() is None
    assert changes(before, snapshot(manager)) == set()
    assert threads.made == []


def test_start_clears_under_the_lock(manager: Any, threads: type[FakeThread]) -> None:
    held: list[bool] = []

    class Watched(threading.Event):
        def clear(self) -> None:
            held.append(manager._lock.locked())
            super().clear()

    manager._close_event = Watched()
    manager._start_refresh()
    assert held == [True]
    assert not manager._lock.locked()


@pytest.mark.parametrize(
    "error", [RuntimeError("can't start new thread"), MemoryError("none left")], ids=repr
)
def test_a_thread_that_cannot_be_started_leaves_nobody_waiting(
    manager: Any, threads: type[FakeThread], error: Exception
) -> None:
    threads.error = error
    previous = manager._refresh_thread = object()
    manager._state, manager._reauth_mode = "RE_AUTHENTICATING", "PROACTIVE"
    manager._auth_event = threading.Event()
    with pytest.raises(type(error)) as caught:
        manager._start_refresh()
    assert caught.value is error
    assert manager._state == "AUTHENTICATED"
    assert manager._reauth_mode is None
    assert reason_of(manager._auth_error) == str(error)
    assert manager._auth_event.is_set()
    assert manager._refresh_done.is_set()
    assert manager._refresh_thread is previous
    assert not manager._lock.locked()
    manager._refresh_thread = None


def test_the_real_thread_is_a_daemon_of_the_host(manager: Any) -> None:
    manager._state = "AUTHENTICATED"
    manager._start_refresh()
    assert type(manager._refresh_thread) is threading.Thread
    assert manager._refresh_thread.daemon
    assert manager._refresh_thread.is_alive()


# The loop


@pytest.fixture
def looping(manager: Any, clock: HandClock) -> Any:
    """A manager whose loop can run on the test's own thread, with scripted waits."""
    manager._state = "AUTHENTICATED"
    manager._refresh_at = 2000.0
    manager._refresh_thread = threading.current_thread()
    manager._refresh_event = ScriptedEvent()
    manager.refreshes = []
    manager._do_refresh = lambda: manager.refreshes.append(manager._refresh_pending.is_set())
    yield manager
    manager._refresh_thread = None


def stop_at(manager: Any, number: int) -> None:
    def script(count: int) -> None:
        if count >= number:
            manager._refresh_stop.set()

    manager._refresh_event.script = script


@pytest.mark.parametrize("name", ["_refresh_stop", "_close_event"])
def test_loop_returns_at_once_when_asked_to_end(looping: Any, name: str) -> None:
    looping._refresh_at = 0.0
    getattr(looping, name).set()
    assert looping._refresh_loop() is None
    assert looping.refreshes == []
    assert looping._refresh_event.waits == []


def test_loop_tests_the_stop_request_first(looping: Any) -> None:
    asked: list[str] = []

    class Asked(threading.Event):
        name = ""

        def is_set(self) -> bool:
            asked.append(self.name)
            return self.name == "close"

    looping._refresh_stop, looping._close_event = Asked(), Asked()
    looping._refresh_stop.name, looping._close_event.name = "stop", "close"
    looping._refresh_loop()
    assert asked == ["stop", "close"]


def test_loop_returns_when_closed(looping: Any) -> None:
    looping._state = "CLOSED"
    looping._refresh_at = 0.0
    looping._refresh_loop()
    assert looping.refreshes == []
    assert looping._refresh_event.waits == []


@pytest.mark.parametrize(("injected", "grain"), [(True, 0.05), (False, 1.0)])
@pytest.mark.parametrize("state", ["UNINITIALIZED", "AUTHENTICATING", "RE_AUTHENTICATING"])
def test_loop_that_is_not_authenticated_waits_one_grain_and_looks_again(
    looping: Any, injected: bool, grain: float, state: str
) -> None:
    looping._state = state
    looping._refresh_at = 0.0
    looping._uses_injected_clock = injected
    stop_at(looping, 3)
    looping._refresh_loop()
    assert looping._refresh_event.waits == [((), {"timeout": grain})] * 3
    assert looping._refresh_event.cleared == 3
    assert looping.refreshes == []


@pytest.mark.parametrize(("injected", "grain"), [(True, 0.05), (False, 1.0)])
def test_loop_without_a_refresh_time_never_refreshes_and_polls_each_grain(
    looping: Any, injected: bool, grain: float
) -> None:
    looping._refresh_at = None
    looping._uses_injected_clock = injected
    stop_at(looping, 5)
    looping._refresh_loop()
    assert looping._refresh_event.timeouts == [grain] * 5
    assert looping._refresh_event.cleared == 5
    assert looping.refreshes == []


@pytest.mark.parametrize(
    ("injected", "remaining", "timeout"),
    [
        (True, 1000.0, 0.05),
        (True, 0.06, 0.05),
        (True, 0.01, 0.05),
        (False, 1000.0, 1000.0),
        (False, 1.5, 1.5),
        (False, 1.0, 1.0),
        (False, 0.25, 1.0),
        (False, 0.001, 1.0),
    ],
)
def test_loop_waits_for_the_remaining_time_within_its_grain(
    looping: Any, injected: bool, remaining: float, timeout: float
) -> None:
    looping._clock = lambda: 0.0
    looping._refresh_at = remaining
    looping._uses_injected_clock = injected
    stop_at(looping, 1)
    looping._refresh_loop()
    assert looping._refresh_event.waits == [((), {"timeout": timeout})]
    assert looping._refresh_event.cleared == 1
    assert looping.refreshes == []


@pytest.mark.parametrize("refresh_at", [1000.0, 999.999, 0, -5.0])
def test_loop_refreshes_once_at_or_after_the_refresh_time_and_returns(
    looping: Any, refresh_at: float
) -> None:
    looping._refresh_at = refresh_at
    assert looping._refresh_loop() is None
    assert looping.refreshes == [True]
    assert looping._refresh_event.waits == []


def test_loop_woken_early_reads_state_and_times_again(looping: Any, clock: HandClock) -> None:
    looping._uses_injected_clock = False

    def script(count: int) -> None:
        if count == 2:
            looping._refresh_at = 1500.0
        if count == 4:
            clock.advance(500.0)

    looping._refresh_event.script = script
    looping._refresh_loop()
    assert looping._refresh_event.timeouts == [1000.0, 1000.0, 500.0, 500.0]
    assert looping.refreshes == [True]


def test_loop_does_not_set_refresh_pending_before_the_refresh_is_due(looping: Any) -> None:
    stop_at(looping, 3)
    looping._refresh_loop()
    assert not looping._refresh_pending.is_set()


def test_loop_waits_with_the_lock_free(looping: Any) -> None:
    locked: list[bool] = []

    def script(count: int) -> None:
        locked.append(looping._lock.locked())
        if count == 2:
            looping._refresh_stop.set()

    looping._refresh_event.script = script
    looping._refresh_loop()
    assert locked == [False, False]


def test_loop_ends_at_the_next_pass_once_closed(looping: Any) -> None:
    looping._refresh_event.script = lambda count: setattr(looping, "_state", "CLOSED")
    looping._refresh_loop()
    assert len(looping._refresh_event.waits) == 1


def test_loop_superseded_by_a_newer_thread_ends_at_its_next_pass(looping: Any, clock: HandClock) -> None:
    release = threading.Event()
    newer = threading.Thread(target=release.wait, args=(10.0,), daemon=True)
    newer.start()

    def script(count: int) -> None:
        looping._refresh_thread = newer
        clock.advance(5000.0)

    looping._refresh_event.script = script
    try:
        looping._refresh_loop()
    finally:
        release.set()
        join(newer)
    assert len(looping._refresh_event.waits) == 1
    assert looping.refreshes == []


def test_loop_reads_time_through_get_time_of_the_instance(looping: Any) -> None:
    looping._get_time = lambda: 2000.0
    looping._refresh_loop()
    assert looping.refreshes == [True]


# With real threads


def test_with_an_injected_clock_passing_the_refresh_time_renews_at_once_on_a_new_thread(
    logged_in: Any, server: FakeServer, clock: HandClock
) -> None:
    first = logged_in._refresh_thread
    clock.now = logged_in._refresh_at
    until(lambda: logged_in._refresh_thread is not first, timeout=2.0, what="the next cycle")
    join(first)
    assert logged_in._token == server.tokens[1]
    assert logged_in._state == "AUTHENTICATED"
    assert server.paths == FULL_LOGIN * 2
    assert server.calls[-1].thread is first
    assert refresh_threads(logged_in) == [logged_in._refresh_thread]


def test_just_before_the_refresh_time_nothing_is_renewed(
    logged_in: Any, server: FakeServer, clock: HandClock
) -> None:
    clock.now = logged_in._refresh_at - 0.001
    readings = clock.readings
    until(lambda: clock.readings >= readings + 3, what="three more passes")
    assert server.paths == FULL_LOGIN


def test_renewal_goes_on_for_many_cycles_with_one_loop_alive(
    logged_in: Any, server: FakeServer, clock: HandClock
) -> None:
    for cycle in range(1, 8):
        clock.now = logged_in._refresh_at
        until(lambda cycle=cycle: len(server.tokens) == cycle + 1, what=f"cycle {cycle}")  # type: ignore[misc]
        until(lambda: logged_in._state == "AUTHENTICATED", what="the store")
        until(lambda: refresh_threads(logged_in) == [logged_in._refresh_thread], what="a single loop")
    assert logged_in._token == server.tokens[-1]


def test_after_a_failed_refresh_the_state_is_uninitialized_and_no_thread_runs(
    logged_in: Any, server: FakeServer, clock: HandClock
) -> None:
    server.always(VERIFY, Answer(401))
    thread = logged_in._refresh_thread
    clock.now = logged_in._refresh_at
    join(thread)
    assert logged_in._state == "UNINITIALIZED"
    assert logged_in._refresh_done.is_set()
    assert reason_of(logged_in._auth_error) == "signature_mismatch"
    assert logged_in._permanent_refresh_error is True
    assert refresh_threads(logged_in) == []
    assert logged_in._refresh_thread is thread


def test_a_later_login_turns_renewal_on_again(logged_in: Any, server: FakeServer, clock: HandClock) -> None:
    server.always(VERIFY, Answer(401))
    clock.now = logged_in._refresh_at
    join(logged_in._refresh_thread)
    server.always(VERIFY, None)
    logged_in.authenticate()
    assert logged_in._permanent_refresh_error is False
    assert logged_in._refresh_thread.is_alive()


def test_a_clock_that_raises_in_the_loop_leaves_the_manager_usable(
    logged_in: Any, server: FakeServer, clock: HandClock, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(threading, "excepthook", lambda args: None)
    readings = clock.readings
    clock.error = RuntimeError("no time")
    until(lambda: clock.readings > readings, what="a failing reading")
    clock.error = None
    assert not logged_in._lock.locked()
    logged_in.authenticate()
    assert logged_in._token == server.tokens[1]
    until(lambda: refresh_threads(logged_in) == [logged_in._refresh_thread], what="a single refresh loop")


@pytest.mark.parametrize("name", ["_refresh_stop", "_close_event"])
def test_a_stop_request_is_observed_within_a_grain(logged_in: Any, name: str) -> None:
    thread = logged_in._refresh_thread
    getattr(logged_in, name).set()
    join(thread, 1.0)


def test_a_stop_request_with_a_wake_up_is_observed_at_once_with_the_real_clock(
    make_manager: Callable[..., Any],
) -> None:
    import time

    manager = make_manager()
    manager._clock, manager._uses_injected_clock = time.time, False
    manager.authenticate()
    thread = manager._refresh_thread
    manager._refresh_stop.set()
    manager._refresh_event.set()
    join(thread, 0.5)


def test_a_refresh_that_finds_a_re_authentication_under_way_does_nothing_and_ends(
    logged_in: Any, server: FakeServer, clock: HandClock
) -> None:
    calls: list[Any] = []
    original = type(logged_in)._do_refresh

    def refresh() -> None:
        with logged_in._lock:
            logged_in._state = "RE_AUTHENTICATING"
        calls.append(original(logged_in))

    logged_in._do_refresh = refresh
    thread = logged_in._refresh_thread
    clock.now = logged_in._refresh_at
    join(thread)
    assert calls == [None]
    assert server.paths == FULL_LOGIN
    assert logged_in._state == "RE_AUTHENTICATING"


def test_waiters_of_authenticate_get_the_result_of_a_refresh(
    logged_in: Any, server: FakeServer, clock: HandClock
) -> None:
    gate = server.hold(CHALLENGE)
    clock.now = logged_in._refresh_at
    gate.reached()
    waiter = Worker(logged_in.authenticate)
    server.unhold(CHALLENGE)
    assert waiter.result() is None
    assert server.count(VERIFY) == 2


@pytest.mark.parametrize("name", ["_start_refresh", "_refresh_loop", "_do_refresh"])
def test_wrong_arguments(manager: Any, name: str) -> None:
    with pytest.raises(TypeError, match=name):
        getattr(manager, name)(1)

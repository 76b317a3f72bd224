"""Races, each provoked at its critical point."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.modules import StandIn
from tests.shared.threads import DEADLINE, Worker, until

from .support.host import ShortSleeps, unstartable_threads
from .support.managers import build, reason
from .support.service import CHALLENGE, VERIFY, Service, always_answers, always_raises, era_of
from .support.threads import ThreadCensus, WatchedEvent

DAY = 86400.0
NO_THREAD = "can't start new thread"

ENDINGS = [
    pytest.param(SystemExit("leave"), "leave", id="SystemExit"),
    pytest.param(SystemExit(), "", id="SystemExit without words"),
    pytest.param(KeyboardInterrupt("stop"), "stop", id="KeyboardInterrupt"),
    pytest.param(GeneratorExit("gone"), "gone", id="GeneratorExit"),
    pytest.param(MemoryError("no room"), "no room", id="MemoryError"),
    pytest.param(RecursionError("too deep"), "too deep", id="RecursionError"),
    pytest.param(auth.AuthError(reason="unauthorized"), "unauthorized", id="AuthError"),
]


# A thread that cannot be started


@pytest.mark.parametrize(
    "error", [RuntimeError(NO_THREAD), MemoryError("no stack")], ids=lambda e: type(e).__name__
)
def test_an_announcement_whose_thread_cannot_be_started(
    logged_in: Any, monkeypatch: pytest.MonkeyPatch, error: BaseException
) -> None:
    monkeypatch.setattr(auth, "threading", unstartable_threads(logged_in._background_reauth, error=error))
    with pytest.raises(type(error)) as caught:
        logged_in.notify_era_change(5)
    assert caught.value is error
    assert logged_in._state == "AUTHENTICATED"
    assert logged_in._reauth_mode is None
    assert logged_in._auth_event.is_set()
    assert reason(logged_in._auth_error) == str(error)
    # The era was announced nevertheless.
    assert logged_in._pending_era_number == 5
    with pytest.raises(auth.AuthError) as served:
        logged_in.get_token()
    assert served.value is logged_in._auth_error


def test_who_waited_for_the_announcement_whose_thread_cannot_be_started(
    logged_in: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    callers: list[Worker] = []

    class Thread(threading.Thread):
        def start(self) -> None:
            event = logged_in._auth_event
            callers.append(Worker(logged_in.get_token))
            callers.append(Worker(logged_in.authenticate))
            event.waited_for()
            event.waited_for()
            raise RuntimeError(NO_THREAD)

    monkeypatch.setattr(auth, "threading", StandIn(threading, Thread=Thread, Event=WatchedEvent))
    with pytest.raises(RuntimeError, match=NO_THREAD):
        logged_in.notify_era_change(5)
    assert [reason(caller.failure()) for caller in callers] == [NO_THREAD] * 2


def test_the_next_announcement_after_one_without_a_thread(
    logged_in: Any, service: Service, monkeypatch: pytest.MonkeyPatch
) -> None:
    with monkeypatch.context() as patch:
        patch.setattr(auth, "threading", unstartable_threads())
        with pytest.raises(RuntimeError):
            logged_in.notify_era_change(5)
    service.era = 5
    logged_in.notify_era_change(4)
    assert era_of(logged_in.get_token()) == 5


def test_a_login_whose_refresh_thread_cannot_be_started(
    manager: Any, service: Service, monkeypatch: pytest.MonkeyPatch, census: ThreadCensus
) -> None:
    with monkeypatch.context() as patch:
        patch.setattr(auth, "threading", unstartable_threads())
        with pytest.raises(RuntimeError, match=NO_THREAD):
            manager.authenticate()
    assert manager._state == "AUTHENTICATED"
    assert manager._reauth_mode is None
    assert manager._auth_event.is_set()
    assert reason(manager._auth_error) == NO_THREAD
    assert manager._refresh_thread is None
    assert manager.get_token() == service.tokens[-1]
    manager.authenticate()
    census.settle(1)


def test_who_waited_for_the_login_whose_refresh_thread_cannot_be_started(
    manager: Any, service: Service, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(auth, "threading", StandIn(unstartable_threads(), Event=WatchedEvent))
    gate = service.hold(CHALLENGE)
    runner = Worker(manager.authenticate)
    gate.reached()
    waiter = Worker(manager.authenticate)
    manager._auth_event.waited_for()
    service.let_go()
    assert isinstance(runner.failure(), RuntimeError)
    # The token was stored before the thread failed; the waiter may have woken in between.
    if waiter.finish().error is not None:
        assert reason(waiter.failure()) == NO_THREAD
    assert manager.get_token() == service.tokens[-1]


def test_a_refresh_whose_next_thread_cannot_be_started(
    logged_in: Any, service: Service, clock: HandClock, monkeypatch: pytest.MonkeyPatch, census: ThreadCensus
) -> None:
    monkeypatch.setattr(auth, "threading", unstartable_threads())
    clock.now += 0.9 * DAY
    census.settle(0)
    assert logged_in._state == "AUTHENTICATED"
    assert logged_in._reauth_mode is None
    assert logged_in._auth_event.is_set()
    assert logged_in._refresh_done.is_set()
    assert reason(logged_in._auth_error) == NO_THREAD
    assert logged_in.get_token() == service.tokens[1]


def test_a_refresh_whose_next_thread_the_program_does_not_start(logged_in: Any) -> None:
    def refuse() -> None:
        raise RuntimeError(NO_THREAD)

    logged_in._start_refresh = refuse
    logged_in._do_refresh()
    assert logged_in._state == "AUTHENTICATED"
    assert reason(logged_in._auth_error) == NO_THREAD


def test_an_era_change_whose_refresh_thread_cannot_be_started(
    logged_in: Any, service: Service, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(auth, "threading", unstartable_threads(logged_in._refresh_loop))
    service.era = 3
    logged_in.notify_era_change(3)
    event = logged_in._auth_event
    assert event.wait(DEADLINE)
    until(lambda: logged_in._auth_error is not None, "the record of the failure")
    assert logged_in._state == "AUTHENTICATED"
    assert logged_in._reauth_mode is None
    assert reason(logged_in._auth_error) == NO_THREAD
    assert era_of(logged_in.get_token()) == 3


def test_a_thread_that_cannot_be_started_leaves_a_newer_reauthentication_alone(
    manager: Any, service: Service, monkeypatch: pytest.MonkeyPatch, census: ThreadCensus
) -> None:
    class Thread(threading.Thread):
        def start(self) -> None:
            if self._target == manager._refresh_loop:  # type: ignore[attr-defined]
                if CHALLENGE not in service.gates:
                    gate = service.hold(CHALLENGE)
                    manager.notify_era_change(6)
                    gate.reached()
                raise RuntimeError(NO_THREAD)
            super().start()

    with monkeypatch.context() as patch:
        patch.setattr(auth, "threading", StandIn(threading, Thread=Thread))
        with pytest.raises(RuntimeError, match=NO_THREAD):
            manager.authenticate()
    # A re-authentication for era 6 is running; another announcement must not start a second one.
    manager.notify_era_change(7)
    assert len([thread for thread in census.newcomers() if thread is not manager._refresh_thread]) == 1
    service.era = 7
    service.let_go()
    until(lambda: manager._token is not None and era_of(manager._token) == 7, "the token of era 7")


# What ends a background flow


@pytest.mark.parametrize(("ending", "words"), ENDINGS)
@pytest.mark.parametrize("path", [CHALLENGE, VERIFY])
def test_whatever_ends_a_refresh_is_recorded(
    logged_in: Any,
    service: Service,
    clock: HandClock,
    census: ThreadCensus,
    path: str,
    ending: Any,
    words: str,
) -> None:
    def fault(asked: str) -> None:
        if asked == path:
            raise ending

    service.fault = fault
    clock.now += 0.9 * DAY
    census.settle(0)
    assert logged_in._state == "UNINITIALIZED"
    assert logged_in._reauth_mode is None
    assert reason(logged_in._auth_error) == words
    assert logged_in._auth_event.is_set() and logged_in._refresh_done.is_set()
    service.fault = None
    logged_in.authenticate()
    assert logged_in.get_token() == service.tokens[-1]


@pytest.mark.parametrize(("ending", "words"), ENDINGS)
@pytest.mark.parametrize("path", [CHALLENGE, VERIFY])
def test_whatever_ends_an_era_change_is_recorded(
    logged_in: Any, service: Service, path: str, ending: Any, words: str
) -> None:
    def fault(asked: str) -> None:
        if asked == path:
            raise ending

    service.fault = fault
    logged_in.notify_era_change(5)
    assert logged_in._auth_event.wait(DEADLINE)
    assert logged_in._state == "AUTHENTICATED"
    assert logged_in._reauth_mode is None
    assert logged_in._pending_era_number == 5
    with pytest.raises(auth.AuthError) as caught:
        logged_in.get_token()
    assert caught.value is logged_in._auth_error
    assert reason(caught.value) == words
    service.fault, service.era = None, 5
    logged_in.notify_era_change(5)
    assert era_of(logged_in.get_token()) == 5


@pytest.mark.parametrize(("ending", "words"), ENDINGS)
@pytest.mark.parametrize("background", ["refresh", "era"])
def test_a_clock_that_fails_while_the_result_is_stored(
    logged_in: Any, service: Service, clock: HandClock, background: str, ending: Any, words: str
) -> None:
    # The clock is read under the lock there; the lock must be released afterwards.
    def fail_from_now_on(path: str) -> None:
        if path == VERIFY:
            clock.error = ending

    event = logged_in._auth_event
    service.fault = fail_from_now_on
    if background == "era":
        service.era = 5
        logged_in.notify_era_change(5)
    else:
        clock.now += 0.9 * DAY
    until(
        lambda: logged_in._auth_event is not event and logged_in._auth_event.is_set(), "the end of the flow"
    )
    service.fault = clock.error = None
    assert logged_in._lock.acquire(timeout=DEADLINE)
    logged_in._lock.release()
    assert logged_in._state == ("AUTHENTICATED" if background == "era" else "UNINITIALIZED")
    assert logged_in._reauth_mode is None
    assert reason(logged_in._auth_error) == words


@pytest.mark.parametrize(("ending", "words"), ENDINGS)
def test_a_clock_that_fails_under_the_refresh_loop(
    logged_in: Any, service: Service, clock: HandClock, ending: BaseException, words: str
) -> None:
    main, failures = threading.current_thread(), []

    def failing_clock() -> float:
        if threading.current_thread() is not main:
            failures.append(words)
            raise ending
        return clock()

    logged_in._clock = failing_clock
    until(lambda: len(failures) >= 3, "three failed readings")
    assert logged_in._state == "AUTHENTICATED"
    assert logged_in.get_token() == service.tokens[0]
    # Renewal is still alive when the clock works again.
    logged_in._clock = clock
    clock.now += 0.9 * DAY
    until(lambda: len(service.tokens) == 2, "the renewal")


def test_a_flow_interrupted_on_the_hosts_thread_leaves_nobody_waiting(
    manager: Any, service: Service, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(auth, "threading", StandIn(threading, Event=WatchedEvent))
    gate = service.hold(CHALLENGE)
    runner = Worker(manager.authenticate)
    gate.reached()
    waiter = Worker(manager.get_token)
    manager._auth_event.waited_for()
    service.fault = always_raises(KeyboardInterrupt("stop"))
    service.let_go()
    assert isinstance(runner.failure(), KeyboardInterrupt)
    assert reason(waiter.failure()) == "stop"
    assert manager._state == "UNINITIALIZED"


# A failed login leaves renewal running


def without_refresh_loop(manager: Any, service: Service, census: ThreadCensus) -> None:
    """Logged in, with an era pending, and the refresh loop ended by its failed attempt."""
    manager.authenticate()
    service.fault = always_answers(CHALLENGE, 401)
    manager.notify_era_change(9)
    until(manager._auth_event.is_set, "the failed era change")
    manager._clock.now += 0.9 * DAY
    census.settle(0)
    assert manager._state == "AUTHENTICATED" and manager._pending_era_number == 9


def test_a_failed_login_starts_renewal_where_none_lives(
    manager: Any, service: Service, clock: HandClock, census: ThreadCensus
) -> None:
    without_refresh_loop(manager, service, census)
    # Far enough from the refresh point that the restarted loop does not refresh at once.
    manager._refresh_at = clock.now + DAY
    with pytest.raises(auth.AuthError):
        manager.authenticate()
    census.settle(1)
    assert manager._state == "AUTHENTICATED"
    service.fault, service.era = None, 9
    clock.now += 2 * DAY
    until(lambda: manager._pending_era_number is None, "the renewal")
    assert era_of(manager.get_token()) == 9


def test_a_failed_login_starts_no_second_loop(logged_in: Any, service: Service, census: ThreadCensus) -> None:
    thread = logged_in._refresh_thread
    service.fault = always_answers(CHALLENGE, 401)
    for _ in range(20):
        with pytest.raises(auth.AuthError):
            logged_in.authenticate()
    assert census.newcomers() == [thread]


def test_a_login_refused_for_good_ends_no_renewal(logged_in: Any, service: Service) -> None:
    service.fault = always_answers(VERIFY, 401)
    with pytest.raises(auth.AuthError, match="signature_mismatch"):
        logged_in.authenticate()
    assert logged_in._permanent_refresh_error is False
    assert logged_in.get_token() == service.tokens[-1]


def test_a_loop_that_could_not_be_replaced_is_not_missing(
    logged_in: Any, service: Service, census: ThreadCensus, monkeypatch: pytest.MonkeyPatch
) -> None:
    thread = logged_in._refresh_thread
    with monkeypatch.context() as patch:
        patch.setattr(auth, "threading", unstartable_threads())
        with pytest.raises(RuntimeError, match=NO_THREAD):
            logged_in._start_refresh()
    service.fault = always_answers(CHALLENGE, 401)
    with pytest.raises(auth.AuthError):
        logged_in.authenticate()
    assert census.newcomers() == [thread]


def test_a_failed_first_login_starts_no_renewal(manager: Any, service: Service, census: ThreadCensus) -> None:
    service.fault = always_answers(CHALLENGE, 401)
    with pytest.raises(auth.AuthError):
        manager.authenticate()
    assert census.newcomers() == [] and manager._refresh_thread is None


def test_a_failed_login_whose_refresh_loop_ended_meanwhile(
    logged_in: Any, service: Service, clock: HandClock, census: ThreadCensus
) -> None:
    begun, go_on = threading.Event(), threading.Event()

    def late_refresh() -> None:
        begun.set()
        assert go_on.wait(DEADLINE)
        auth.AuthManager._do_refresh(logged_in)

    logged_in._do_refresh = late_refresh
    clock.now += 0.9 * DAY
    assert begun.wait(DEADLINE)
    del logged_in._do_refresh
    gate = service.hold(CHALLENGE)
    login = Worker(logged_in.authenticate)
    gate.reached()
    # The refresh finds a login in progress, does nothing, and its thread ends.
    go_on.set()
    census.settle(0)
    logged_in._refresh_at = clock.now + DAY
    service.fault = always_answers(CHALLENGE, 401)
    service.let_go()
    assert reason(login.failure()) == "unauthorized"
    census.settle(1)


def test_a_failed_login_whose_refresh_loop_is_about_to_end(
    logged_in: Any, service: Service, clock: HandClock, census: ThreadCensus
) -> None:
    begun, go_on, idle, leave = (threading.Event() for _ in range(4))

    def late_refresh() -> None:
        begun.set()
        assert go_on.wait(DEADLINE)
        auth.AuthManager._do_refresh(logged_in)
        idle.set()
        assert leave.wait(DEADLINE)

    ending = logged_in._refresh_thread
    logged_in._do_refresh = late_refresh
    clock.now += 0.9 * DAY
    assert begun.wait(DEADLINE)
    del logged_in._do_refresh
    gate = service.hold(CHALLENGE)
    login = Worker(logged_in.authenticate)
    gate.reached()
    go_on.set()
    assert idle.wait(DEADLINE)
    # The thread is still alive, but has checked the manager for the last time.
    logged_in._refresh_at = clock.now + DAY
    service.fault = always_answers(CHALLENGE, 401)
    service.let_go()
    assert reason(login.failure()) == "unauthorized"
    leave.set()
    ending.join(DEADLINE)
    census.settle(1, "renewal after the failed login", timeout=2.0)


# A refresh that begins and ends between the nudge and the wait


class Nudge(threading.Event):
    """A refresh event whose setting performs a whole refresh."""

    def __init__(self, refresh: Callable[[], Any]) -> None:
        super().__init__()
        self.refresh: Callable[[], Any] | None = refresh

    def set(self) -> None:
        super().set()
        refresh, self.refresh = self.refresh, None
        if refresh is not None:
            refresh()


class NeverWaited(threading.Event):
    def wait(self, timeout: float | None = None) -> bool:
        raise AssertionError("waited for a refresh that is over")


def test_a_refresh_between_the_nudge_and_the_wait_costs_nothing(
    make_manager: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    manager = make_manager()
    manager.authenticate()
    # The loop would do the refresh itself.
    manager._refresh_stop.set()
    manager._refresh_event.set()
    manager._refresh_thread.join(DEADLINE)
    manager._refresh_event = Nudge(manager._do_refresh)
    manager._refresh_done = NeverWaited()
    clock.now = manager._refresh_at
    assert manager.get_token() == service.tokens[1]


def test_a_failed_refresh_between_the_nudge_and_the_wait_costs_nothing(
    make_manager: Callable[..., Any], service: Service, clock: HandClock, stopwatch: Callable[[], float]
) -> None:
    manager = make_manager()
    manager.authenticate()
    manager._refresh_stop.set()
    manager._refresh_event.set()
    manager._refresh_thread.join(DEADLINE)
    service.fault = always_answers(VERIFY, 401)
    manager._refresh_event = Nudge(manager._do_refresh)
    clock.now = manager._refresh_at
    stopwatch()
    with pytest.raises(auth.AuthError) as caught:
        manager.get_token()
    assert reason(caught.value) == "token_expired"
    assert stopwatch() < 5.0


def test_a_refresh_between_the_last_look_and_the_wait_costs_nothing(
    manager: Any, service: Service, clock: HandClock, stopwatch: Callable[[], float]
) -> None:
    class RefreshedAtTheWait(threading.Event):
        refreshed = False

        def wait(self, timeout: float | None = None) -> bool:
            if not self.refreshed:
                self.refreshed = True
                manager._do_refresh()
            return super().wait(timeout)

    manager.authenticate()
    stop_loop(manager)
    manager._refresh_thread.join(DEADLINE)
    manager._refresh_done = RefreshedAtTheWait()
    clock.now = manager._refresh_at
    stopwatch()
    assert manager.get_token() == service.tokens[1]
    assert stopwatch() < 5.0
    # The next caller past a refresh point waits for a new signal.
    assert not manager._refresh_done.is_set()


# After the suspension of a laptop


@pytest.fixture
def asleep(
    make_manager: Callable[..., Any], clock: HandClock, monkeypatch: pytest.MonkeyPatch
) -> tuple[Any, HandClock]:
    """On the wall clock (as far as the manager knows), with its refresh loop in a wait of many hours."""
    monkeypatch.setattr(auth, "threading", StandIn(threading, Event=WatchedEvent))
    manager = make_manager(default_clock=True)
    manager._clock = clock
    manager.authenticate()
    manager._refresh_event.waited_for()
    assert manager._refresh_event.timeouts[0] > 60_000.0
    return manager, clock


def test_the_first_call_after_the_lid_opens_renews(asleep: tuple[Any, HandClock], service: Service) -> None:
    manager, clock = asleep
    clock.now += 2 * DAY
    begun = time.monotonic()
    assert manager.get_token() == service.tokens[1]
    assert time.monotonic() - begun < 2.0
    assert manager._token_expiry == clock.now + DAY


def test_every_caller_after_the_lid_opens_gets_the_new_token(
    asleep: tuple[Any, HandClock], service: Service
) -> None:
    manager, clock = asleep
    clock.now += 2 * DAY
    callers = [Worker(manager.get_token) for _ in range(16)]
    assert {caller.result() for caller in callers} == {service.tokens[1]}
    assert len(service.tokens) == 2


def test_the_display_name_after_the_lid_opens(asleep: tuple[Any, HandClock], service: Service) -> None:
    manager, clock = asleep
    clock.now += 2 * DAY
    assert manager.set_display_name("Ada") == {"ok": True}
    assert len(service.tokens) == 2


def test_a_lid_opened_past_the_refresh_point_only(asleep: tuple[Any, HandClock], service: Service) -> None:
    manager, clock = asleep
    clock.now = manager._refresh_at
    assert manager.get_token() == service.tokens[1]


def expired(manager: Any, clock: HandClock) -> Any:
    """Logged in and expired, without a refresh loop that could interfere."""
    manager.authenticate()
    manager._refresh_stop.set()
    manager._refresh_event.set()
    manager._refresh_thread.join(DEADLINE)
    manager._refresh_stop.clear()
    clock.now += 2 * DAY
    return manager


def stop_loop(manager: Any) -> None:
    manager._refresh_stop.set()
    manager._refresh_event.set()


@pytest.mark.parametrize("in_pass", [1, 7, 30])
def test_a_refresh_between_two_looks_of_the_poll_is_noticed(
    manager: Any, service: Service, clock: HandClock, monkeypatch: pytest.MonkeyPatch, in_pass: int
) -> None:
    expired(manager, clock)
    sleeps = ShortSleeps(lambda seconds: manager._do_refresh() if len(sleeps.sleeps) == in_pass else None)
    monkeypatch.setattr(auth, "_time", sleeps)
    assert manager.get_token() == service.tokens[1]
    assert len(sleeps.sleeps) == in_pass


def test_a_refresh_before_the_poll_is_noticed(
    manager: Any, service: Service, clock: HandClock, monkeypatch: pytest.MonkeyPatch
) -> None:
    expired(manager, clock)
    monkeypatch.setattr(auth, "_time", ShortSleeps())
    manager._refresh_event = Nudge(manager._do_refresh)
    assert manager.get_token() == service.tokens[1]


def test_a_refresh_while_the_poll_is_being_prepared_is_noticed(
    manager: Any, service: Service, clock: HandClock, monkeypatch: pytest.MonkeyPatch
) -> None:
    expired(manager, clock)
    monkeypatch.setattr(auth, "_time", ShortSleeps())

    class RefreshedAtALook(threading.Event):
        refreshed = False

        def is_set(self) -> bool:
            if not self.refreshed:
                self.refreshed = True
                manager._do_refresh()
                stop_loop(manager)
            return False

    manager._refresh_pending = RefreshedAtALook()
    assert manager.get_token() == service.tokens[1]


def test_a_poll_serves_no_new_token_of_a_pending_era(
    manager: Any, service: Service, clock: HandClock, monkeypatch: pytest.MonkeyPatch
) -> None:
    expired(manager, clock)

    def refresh_then_announce(seconds: float) -> None:
        if len(sleeps.sleeps) == 1:
            manager._do_refresh()
            with manager._lock:
                manager._pending_era_number = 8

    sleeps = ShortSleeps(refresh_then_announce)
    monkeypatch.setattr(auth, "_time", sleeps)
    with pytest.raises(auth.AuthError) as caught:
        manager.get_token()
    assert reason(caught.value) == "era_change_pending"


def test_a_poll_serves_no_new_token_that_has_expired_too(
    manager: Any, service: Service, clock: HandClock, monkeypatch: pytest.MonkeyPatch
) -> None:
    expired(manager, clock)

    def refresh_then_sleep_again(seconds: float) -> None:
        if len(sleeps.sleeps) == 1:
            manager._do_refresh()
            stop_loop(manager)
            manager._refresh_thread.join(DEADLINE)
            # Starting the next loop has reset the field for the fallback.
            clock.now += 2 * DAY

    sleeps = ShortSleeps(refresh_then_sleep_again)
    monkeypatch.setattr(auth, "_time", sleeps)
    with pytest.raises(auth.AuthError) as caught:
        manager.get_token()
    assert reason(caught.value) == "token_expired"
    assert len(sleeps.sleeps) == 30


# close() during a start


def closing_at_start(manager_of: Callable[[], Any]) -> StandIn:
    class Thread(threading.Thread):
        def start(self) -> None:
            manager_of().close()
            super().start()

    return StandIn(threading, Thread=Thread)


def test_close_while_the_refresh_thread_is_being_started(
    manager: Any, monkeypatch: pytest.MonkeyPatch, census: ThreadCensus
) -> None:
    monkeypatch.setattr(auth, "threading", closing_at_start(lambda: manager))
    login = Worker(manager.authenticate).finish()
    assert login.error is None or reason(login.error) == "manager_closed"
    census.settle(0, timeout=1.0)
    assert manager._state == "CLOSED" and manager._token is None and manager._refresh_thread is None
    assert manager._close_event.is_set()


def test_close_while_the_era_thread_is_being_started(
    logged_in: Any, service: Service, monkeypatch: pytest.MonkeyPatch, census: ThreadCensus
) -> None:
    sent = len(service.paths)
    monkeypatch.setattr(auth, "threading", closing_at_start(lambda: logged_in))
    announced = Worker(logged_in.notify_era_change, 4).finish()
    assert announced.error is None or reason(announced.error) == "manager_closed"
    census.settle(0, timeout=1.0)
    assert logged_in._state == "CLOSED" and logged_in._token is None
    assert len(service.paths) == sent


@pytest.mark.parametrize("background", ["login", "refresh", "era"])
def test_a_flow_that_ends_after_close_stores_nothing_and_starts_nothing(
    service: Service, clock: HandClock, census: ThreadCensus, background: str
) -> None:
    manager = build(service, clock)
    login = None
    if background != "login":
        manager.authenticate()
    gate = service.hold(VERIFY)
    if background == "login":
        login = Worker(manager.authenticate)
    elif background == "refresh":
        clock.now += 0.9 * DAY
    else:
        manager.notify_era_change(2)
    gate.reached()
    manager.close()
    service.let_go()
    census.settle(0)
    if login is not None:
        assert reason(login.failure()) == "manager_closed"
    assert manager._state == "CLOSED"
    assert manager._token is None and manager._wallet_secret is None and manager._private_key is None
    assert manager._refresh_thread is None

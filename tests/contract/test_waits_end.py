"""No wait is endless: whatever is waited for fails, is closed, or never happens."""

from __future__ import annotations

import socket
import threading
import time
from collections.abc import Callable, Iterator
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.modules import StandIn
from tests.shared.threads import Worker, until

from .support.host import ShortSleeps
from .support.managers import build, reason
from .support.service import (
    CHALLENGE,
    DISPLAY_NAME,
    REGISTER,
    VERIFY,
    Service,
    always_answers,
    always_raises,
)
from .support.threads import ThreadCensus, WatchedEvent

WAKE = 0.1  # within which a closed manager's waiters wake
PASS = 0.1  # of the poll, which really sleeps
JOIN = 1.0  # for which close() waits for the refresh thread
SLACK = 0.05
TRIES = 5

DAY = 86400.0
REFUSED = ConnectionRefusedError("nobody listens")


@pytest.fixture(autouse=True)
def watched_events(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(auth, "threading", StandIn(threading, Event=WatchedEvent))


def as_if_logged_in(manager: Any, now: float, *, expiry: float = DAY, refresh_at: float = DAY) -> Any:
    """The fields after a login, without the refresh thread."""
    manager._state = "AUTHENTICATED"
    manager._token, manager._wallet_secret = "h.old.s", b"s" * 32
    manager._auth_time = manager._token_iat = now
    manager._token_expiry, manager._refresh_at = now + expiry, now + refresh_at
    return manager


# Each scenario leaves one caller blocked in one wait, and returns it.

Scene = Callable[[Service, HandClock], tuple[Any, Worker]]


def second_login(service: Service, clock: HandClock) -> tuple[Any, Worker]:
    manager = build(service, clock)
    gate = service.hold(CHALLENGE)
    Worker(manager.authenticate)
    gate.reached()
    caller = Worker(manager.authenticate)
    manager._auth_event.waited_for()
    return manager, caller


def token_during_login(service: Service, clock: HandClock) -> tuple[Any, Worker]:
    manager = build(service, clock)
    gate = service.hold(CHALLENGE)
    Worker(manager.authenticate)
    gate.reached()
    caller = Worker(manager.get_token)
    manager._auth_event.waited_for()
    return manager, caller


def during_era_change(service: Service, clock: HandClock, call: str, *args: Any) -> tuple[Any, Worker]:
    manager = build(service, clock)
    manager.authenticate()
    gate = service.hold(VERIFY)
    manager.notify_era_change(1)
    gate.reached()
    caller = Worker(getattr(manager, call), *args)
    manager._auth_event.waited_for()
    return manager, caller


def token_during_era_change(service: Service, clock: HandClock) -> tuple[Any, Worker]:
    return during_era_change(service, clock, "get_token")


def login_during_era_change(service: Service, clock: HandClock) -> tuple[Any, Worker]:
    return during_era_change(service, clock, "authenticate")


def name_during_era_change(service: Service, clock: HandClock) -> tuple[Any, Worker]:
    return during_era_change(service, clock, "set_display_name", "Ada")


def token_with_era_change_after_the_first_look(service: Service, clock: HandClock) -> tuple[Any, Worker]:
    manager = build(service, clock)
    manager.authenticate()
    gate = service.hold(VERIFY)

    def announce_then_tell() -> float:
        del manager._get_time
        manager.notify_era_change(1)
        return clock()

    manager._get_time = announce_then_tell
    caller = Worker(manager.get_token)
    gate.reached()
    manager._auth_event.waited_for()
    return manager, caller


def token_after_the_refresh_point(service: Service, clock: HandClock) -> tuple[Any, Worker]:
    manager = as_if_logged_in(build(service, clock), clock(), refresh_at=-1.0)
    caller = Worker(manager.get_token)
    manager._refresh_done.waited_for()
    return manager, caller


def token_after_expiry(service: Service, clock: HandClock) -> tuple[Any, Worker]:
    manager = as_if_logged_in(build(service, clock), clock(), expiry=-1.0)
    caller = Worker(manager.get_token)
    until(manager._refresh_event.is_set, "the poll")
    return manager, caller


def token_after_expiry_with_refresh_running(service: Service, clock: HandClock) -> tuple[Any, Worker]:
    manager = as_if_logged_in(build(service, clock), clock(), expiry=-1.0)
    gate = service.hold(CHALLENGE)
    caller = Worker(manager.get_token)
    until(manager._refresh_event.is_set, "the poll")
    Worker(manager._do_refresh)
    gate.reached()
    manager._auth_event.waited_for()
    return manager, caller


def login_in_back_off(service: Service, clock: HandClock) -> tuple[Any, Worker]:
    manager = build(service, clock)
    service.fault = always_raises(REFUSED)
    caller = Worker(manager.authenticate)
    until(lambda: manager._in_transient_backoff, "the back-off")
    return manager, caller


def login_told_to_come_back_next_year(service: Service, clock: HandClock) -> tuple[Any, Worker]:
    manager = build(service, clock)
    service.fault = lambda path: (429, {"Retry-After": "31536000"}, b"")
    caller = Worker(manager.authenticate)
    until(lambda: manager._in_transient_backoff, "the back-off")
    return manager, caller


def name_in_back_off(service: Service, clock: HandClock) -> tuple[Any, Worker]:
    manager = as_if_logged_in(build(service, clock), clock())
    service.fault = always_answers(DISPLAY_NAME, 503)
    caller = Worker(manager.set_display_name, "Ada")
    until(lambda: manager._in_transient_backoff, "the back-off")
    return manager, caller


def request_without_limit_in_back_off(service: Service, clock: HandClock) -> tuple[Any, Worker]:
    manager = build(service, clock)
    service.fault = lambda path: (503, {}, b"")
    caller = Worker(manager._request_with_retry, "POST", CHALLENGE, {"wallet_address": ""})
    until(lambda: manager._in_transient_backoff, "the back-off")
    return manager, caller


SCENES: list[Scene] = [
    second_login,
    token_during_login,
    token_during_era_change,
    login_during_era_change,
    token_with_era_change_after_the_first_look,
    token_after_the_refresh_point,
    token_after_expiry,
    token_after_expiry_with_refresh_running,
    login_in_back_off,
    login_told_to_come_back_next_year,
    name_in_back_off,
    name_during_era_change,
    request_without_limit_in_back_off,
]


@pytest.mark.parametrize("scene", SCENES, ids=lambda scene: scene.__name__)
def test_close_wakes_who_waits(scene: Scene, census: ThreadCensus) -> None:
    limit = (PASS if scene is token_after_expiry else 0.0) + WAKE
    shortest = float("inf")
    for _ in range(TRIES):
        service, clock = Service(), HandClock()
        manager, caller = scene(service, clock)
        assert caller.alive
        begun = time.monotonic()
        closing = Worker(manager.close)
        assert reason(caller.failure()) == "manager_closed"
        assert caller.ended_at is not None
        shortest = min(shortest, caller.ended_at - begun)
        service.let_go()
        closing.result(JOIN + 10.0)
        if shortest <= limit:
            break
    assert shortest <= limit
    census.settle(0)


# Whatever is waited for fails.

FAILURES = [
    pytest.param(lambda: auth.AuthError(reason="unauthorized"), "unauthorized", id="AuthError"),
    pytest.param(lambda: KeyError("token"), "'token'", id="KeyError"),
    pytest.param(lambda: RuntimeError("out of luck"), "out of luck", id="RuntimeError"),
    pytest.param(lambda: MemoryError("no room"), "no room", id="MemoryError"),
    pytest.param(lambda: SystemExit("leave"), "leave", id="SystemExit"),
    pytest.param(lambda: KeyboardInterrupt("stop"), "stop", id="KeyboardInterrupt"),
]
EVENT_SCENES = [
    second_login,
    token_during_login,
    token_during_era_change,
    login_during_era_change,
    token_with_era_change_after_the_first_look,
    name_during_era_change,
]


@pytest.mark.parametrize(("make_error", "expected"), FAILURES)
@pytest.mark.parametrize("scene", EVENT_SCENES, ids=lambda scene: scene.__name__)
def test_a_failure_wakes_who_waits(
    scene: Scene, make_error: Callable[[], BaseException], expected: str, service: Service, clock: HandClock
) -> None:
    manager, caller = scene(service, clock)
    service.fault = always_raises(make_error())
    service.let_go()
    assert reason(caller.failure()) == expected
    service.fault = None
    assert manager._state in ("UNINITIALIZED", "AUTHENTICATED")
    manager.close()


def test_a_failed_refresh_wakes_the_caller_past_the_refresh_point(service: Service, clock: HandClock) -> None:
    manager, caller = token_after_the_refresh_point(service, clock)
    service.fault = always_answers(CHALLENGE, 401)
    begun = time.monotonic()
    manager._do_refresh()
    # The old token stays, and is valid for another day.
    assert caller.result() == "h.old.s"
    assert caller.ended_at is not None and caller.ended_at - begun < 5.0
    manager.close()


def test_a_refresh_refused_for_good_wakes_the_caller_past_the_refresh_point(
    service: Service, clock: HandClock
) -> None:
    manager, caller = token_after_the_refresh_point(service, clock)
    service.fault = always_answers(VERIFY, 401)
    manager._do_refresh()
    assert reason(caller.failure()) == "token_expired"
    manager.close()


def test_a_refresh_refused_for_good_ends_the_poll(service: Service, clock: HandClock) -> None:
    manager, caller = token_after_expiry(service, clock)
    service.fault = always_answers(VERIFY, 401)
    begun = time.monotonic()
    manager._do_refresh()
    assert reason(caller.failure()) == "token_expired"
    assert caller.ended_at is not None and caller.ended_at - begun < 1.0
    manager.close()


# Whatever is waited for never happens.


class NeverSetInTime(WatchedEvent):
    """The time-out of a wait passes at once."""

    def wait(self, timeout: float | None = None) -> bool:
        if timeout is None:
            return super().wait()
        self.timeouts.append(timeout)
        return self.is_set()


def test_the_refresh_asked_for_never_comes(make_manager: Callable[..., Any], clock: HandClock) -> None:
    manager = as_if_logged_in(make_manager(), clock(), refresh_at=-1.0)
    manager._refresh_done = NeverSetInTime()
    assert manager.get_token() == "h.old.s"
    assert manager._refresh_done.timeouts == [10.0]


@pytest.mark.parametrize("pending", [False, True])
def test_the_refresh_polled_for_never_comes(
    make_manager: Callable[..., Any], clock: HandClock, monkeypatch: pytest.MonkeyPatch, pending: bool
) -> None:
    manager = as_if_logged_in(make_manager(), clock(), expiry=-1.0)
    sleeps = ShortSleeps()
    monkeypatch.setattr(auth, "_time", sleeps)
    if pending:
        manager._refresh_pending.set()
        assert manager.get_token() == "h.old.s"
    else:
        with pytest.raises(auth.AuthError) as caught:
            manager.get_token()
        assert reason(caught.value) == "token_expired"
    assert sleeps.sleeps == [0.1] * 30


@pytest.mark.parametrize("value", [None, "h.old.s"])
def test_a_reauthentication_that_ends_without_a_token(
    make_manager: Callable[..., Any], clock: HandClock, value: str | None
) -> None:
    manager = as_if_logged_in(make_manager(), clock())
    manager._state, manager._token = "RE_AUTHENTICATING", value
    manager._auth_event = WatchedEvent()
    caller = Worker(manager.get_token)
    manager._auth_event.waited_for()
    manager._auth_event.set()
    if value is None:
        assert reason(caller.failure()) == "token_expired"
    else:
        assert caller.result() == value


def test_a_running_authentication_without_an_event_is_not_waited_for(
    make_manager: Callable[..., Any], clock: HandClock
) -> None:
    manager = as_if_logged_in(make_manager(), clock())
    manager._state, manager._auth_event = "RE_AUTHENTICATING", None
    assert Worker(manager.get_token).result() == "h.old.s"


def test_a_clock_that_stands_still_ends_the_back_off(
    make_manager: Callable[..., Any], service: Service
) -> None:
    manager = make_manager()
    begun = time.monotonic()
    manager._wait_with_clock(3600.0)
    assert 1.0 <= time.monotonic() - begun < 2.0


def test_a_clock_that_leaps_ends_the_back_off(make_manager: Callable[..., Any], clock: HandClock) -> None:
    manager = make_manager()
    caller = Worker(manager._wait_with_clock, 3600.0)
    clock.now += 3600.0
    caller.result()


def test_a_clock_that_fails_ends_the_back_off(make_manager: Callable[..., Any], clock: HandClock) -> None:
    manager = make_manager()
    readings = 0

    def fail_at_the_third() -> float:
        nonlocal readings
        readings += 1
        if readings == 3:
            raise OSError("no clock")
        return 5.0

    manager._clock = fail_at_the_third
    with pytest.raises(OSError, match="no clock"):
        manager._wait_with_clock(3600.0)
    assert readings == 3


def test_a_service_that_never_answers(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(auth, "_auth_http_timeout_seconds", lambda: 0.3)
    with socket.create_server(("127.0.0.1", 0)) as listening:
        url = f"http://127.0.0.1:{listening.getsockname()[1]}/auth/challenge"
        begun = time.monotonic()
        with pytest.raises(TimeoutError):
            auth._default_http_transport("POST", url, body="{}")
        assert 0.25 <= time.monotonic() - begun < 5.0


# close()


@pytest.fixture
def stuck_refresh(
    make_manager: Callable[..., Any], service: Service, clock: HandClock
) -> Iterator[tuple[Any, threading.Thread]]:
    """A manager whose refresh thread is inside a request."""
    manager = make_manager()
    manager.authenticate()
    gate = service.hold(CHALLENGE)
    clock.now += DAY
    gate.reached()
    yield manager, manager._refresh_thread
    service.let_go()


def test_close_joins_for_a_second_and_no_longer(stuck_refresh: tuple[Any, threading.Thread]) -> None:
    manager, thread = stuck_refresh
    begun = time.monotonic()
    manager.close()
    assert JOIN - SLACK <= time.monotonic() - begun < JOIN + 0.4
    assert thread.is_alive() and manager._refresh_thread is None


def test_closes_from_many_threads_at_once(stuck_refresh: tuple[Any, threading.Thread]) -> None:
    manager, _ = stuck_refresh
    together = threading.Barrier(8)

    def close() -> float:
        together.wait(10.0)
        begun = time.monotonic()
        manager.close()
        return time.monotonic() - begun

    seconds = [caller.result() for caller in [Worker(close) for _ in range(8)]]
    assert max(seconds) < JOIN + 0.4
    # One of them closes; the others find it closed.
    assert sum(each >= JOIN - SLACK for each in seconds) == 1
    assert manager._state == "CLOSED" and manager._private_key is None and manager._token is None


def test_close_is_quick_where_no_request_runs(make_manager: Callable[..., Any], census: ThreadCensus) -> None:
    shortest = float("inf")
    for _ in range(TRIES):
        manager = make_manager(default_clock=True)
        manager.authenticate()
        begun = time.monotonic()
        manager.close()
        shortest = min(shortest, time.monotonic() - begun)
        census.settle(0)
    assert shortest <= WAKE


@pytest.mark.parametrize("background", ["refresh", "era"])
def test_close_during_the_back_off_of(
    background: str,
    make_manager: Callable[..., Any],
    service: Service,
    clock: HandClock,
    census: ThreadCensus,
) -> None:
    shortest = float("inf")
    for _ in range(TRIES):
        service.fault = None
        manager = make_manager()
        manager.authenticate()
        service.fault = always_raises(REFUSED)
        if background == "refresh":
            clock.now += DAY
        else:
            manager.notify_era_change(4)
        until(lambda manager=manager: manager._in_transient_backoff, "the back-off")  # type: ignore[misc]
        begun = time.monotonic()
        manager.close()
        census.settle(0)
        shortest = min(shortest, time.monotonic() - begun)
    assert shortest <= WAKE


@pytest.mark.parametrize("path", [CHALLENGE, VERIFY])
def test_close_from_a_request_of_the_refresh_thread(
    make_manager: Callable[..., Any], service: Service, clock: HandClock, census: ThreadCensus, path: str
) -> None:
    manager = make_manager()
    manager.authenticate()
    token = manager.get_token()
    seconds: list[float] = []

    def close_now(asked: str) -> None:
        if asked == path:
            assert threading.current_thread() is manager._refresh_thread
            begun = time.monotonic()
            manager.close()
            seconds.append(time.monotonic() - begun)

    service.fault = close_now
    clock.now += DAY
    census.settle(0)
    assert len(seconds) == 1 and seconds[0] < JOIN / 2
    assert manager._state == "CLOSED" and manager._token is None and token


def test_close_from_the_clock_of_the_refresh_thread(
    make_manager: Callable[..., Any], clock: HandClock, census: ThreadCensus
) -> None:
    manager = make_manager()
    manager.authenticate()
    main = threading.current_thread()
    seconds: list[float] = []

    def closing_clock() -> float:
        if threading.current_thread() is not main and not seconds:
            begun = time.monotonic()
            manager.close()
            seconds.append(time.monotonic() - begun)
        return clock()

    manager._clock = closing_clock
    census.settle(0)
    assert len(seconds) == 1 and seconds[0] < JOIN / 2
    assert manager._state == "CLOSED"


def test_close_from_a_request_of_an_era_change(
    make_manager: Callable[..., Any], service: Service, census: ThreadCensus
) -> None:
    manager = make_manager()
    manager.authenticate()
    seconds: list[float] = []

    def close_now(path: str) -> None:
        begun = time.monotonic()
        manager.close()
        seconds.append(time.monotonic() - begun)

    service.fault = close_now
    manager.notify_era_change(2)
    census.settle(0)
    assert seconds[0] < JOIN / 2
    assert manager._state == "CLOSED" and manager._token is None


@pytest.mark.parametrize("path", [REGISTER, CHALLENGE, VERIFY])
def test_close_from_a_request_of_the_login(
    make_manager: Callable[..., Any], service: Service, path: str
) -> None:
    manager = make_manager()
    service.fault = lambda asked: manager.close() if asked == path else None
    assert reason(Worker(manager.authenticate).failure()) == "manager_closed"
    assert manager._state == "CLOSED" and manager._token is None and manager._refresh_thread is None
    assert manager._private_key is None


def test_close_from_the_clock_of_a_back_off(
    make_manager: Callable[..., Any], service: Service, clock: HandClock
) -> None:
    manager = make_manager()
    service.fault = always_raises(REFUSED)

    def closing_clock() -> float:
        manager.close()
        return clock()

    manager._clock = closing_clock
    assert reason(Worker(manager.authenticate).failure()) == "manager_closed"
    assert service.count(CHALLENGE) == 0


def test_close_from_a_request_of_the_profile(make_manager: Callable[..., Any], service: Service) -> None:
    manager = make_manager()
    manager.authenticate()

    def close_and_refuse(path: str) -> Any:
        manager.close()
        return 503, {}, b""

    service.fault = close_and_refuse
    assert reason(Worker(manager.set_display_name, "Ada").failure()) == "manager_closed"
    assert service.count(DISPLAY_NAME) == 1


def test_close_twice_joins_once(stuck_refresh: tuple[Any, threading.Thread]) -> None:
    manager, _ = stuck_refresh
    manager.close()
    begun = time.monotonic()
    manager.close()
    assert time.monotonic() - begun < JOIN / 2


def test_no_wait_of_a_closed_manager_begins(make_manager: Callable[..., Any], service: Service) -> None:
    manager = make_manager()
    manager.authenticate()
    manager.close()
    sent = len(service.paths)
    begun = time.monotonic()
    calls: list[Callable[[], Any]] = [
        manager.authenticate,
        manager.get_token,
        manager.get_token_expiry,
        manager.get_wallet_secret,
        lambda: manager.set_display_name("Ada"),
        lambda: manager.notify_era_change(3),
        lambda: manager._request_with_retry("POST", CHALLENGE),
        manager._do_auth_flow,
    ]
    for call in calls:
        with pytest.raises(auth.AuthError) as caught:
            call()
        assert reason(caught.value) == "manager_closed"
    manager._wait_with_clock(3600.0)
    manager._refresh_loop()
    manager._do_refresh()
    manager._start_refresh()
    assert manager._refresh_thread is None
    assert time.monotonic() - begun < 1.0
    assert len(service.paths) == sent

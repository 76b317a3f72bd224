"""What the component can be busy with on other threads when a program exits."""

from __future__ import annotations

import itertools
import socket
import sys
import threading
import time
from typing import Any

from tessaline import auth

from .surroundings import (
    CONFIG,
    DEADLINE,
    KEPT,
    LAPS,
    MANAGERS,
    THREADS,
    Busy,
    Clock,
    daemon,
    held_https_url,
    logged_in,
    manager_of,
    refusing_url,
    renew_at,
    renew_through,
    silent_url,
    until,
)

# Each returns when the component is busy with what its name says.


def idle() -> None:
    logged_in()


def idle_with_injected_clock() -> None:
    logged_in(clock=Clock())


def idle_refresh_threads_of_many_managers() -> None:
    for _ in range(MANAGERS):
        logged_in(clock=Clock())


def refresh_in_http_request() -> None:
    url, wait = silent_url()
    clock = Clock()
    renew_at(url, clock, logged_in(clock=clock))
    wait()


def refresh_in_https_request() -> None:
    url, wait = held_https_url()
    clock = Clock()
    renew_at(url, clock, logged_in("https", clock))
    wait()


def refresh_in_tls_handshake() -> None:
    url, wait = silent_url("https")
    clock = Clock()
    renew_at(url, clock, logged_in(clock=clock))
    wait()


def refresh_in_sleeping_transport() -> None:
    entered = threading.Event()

    def transport(*_args: Any, **_options: Any) -> Any:
        entered.set()
        time.sleep(600)

    renew_through(transport)
    assert entered.wait(DEADLINE)


def refresh_in_busy_transport() -> None:
    entered = threading.Event()

    def transport(*_args: Any, **_options: Any) -> Any:
        for lap in itertools.count():
            if lap == LAPS:
                entered.set()
            time.sleep(0.0002)

    renew_through(transport)
    assert entered.wait(DEADLINE)


def refresh_in_socket_read_of_transport() -> None:
    ours, theirs = socket.socketpair()
    KEPT.extend((ours, theirs))
    entered = threading.Event()

    def transport(*_args: Any, **_options: Any) -> Any:
        entered.set()
        theirs.recv(1)

    renew_through(transport)
    assert entered.wait(DEADLINE)


def refresh_in_sleeping_clock() -> None:
    clock = Clock()
    logged_in(clock=clock)
    clock.on_background = lambda: time.sleep(600)
    clock.read_by_background.clear()
    assert clock.read_by_background.wait(DEADLINE)


def refresh_in_busy_clock() -> None:
    clock = Clock()
    logged_in(clock=clock)

    def spin() -> None:
        while True:
            time.sleep(0.0002)

    clock.on_background = spin
    clock.read_by_background.clear()
    assert clock.read_by_background.wait(DEADLINE)


def refresh_in_back_off() -> None:
    clock = Clock()
    manager = logged_in(clock=clock)
    renew_at(refusing_url(), clock, manager)
    until(lambda: manager._in_transient_backoff)


def era_change_in_http_request() -> None:
    manager = logged_in()
    manager._server_url, wait = silent_url()
    manager.notify_era_change(2)
    wait()


def era_change_in_busy_transport() -> None:
    manager, busy = logged_in(), Busy()
    manager._transport = busy
    manager.notify_era_change(2)
    busy.wait()


def era_change_in_tls_handshake() -> None:
    manager = logged_in()
    manager._server_url, wait = silent_url("https")
    manager.notify_era_change(2)
    wait()


def era_change_in_back_off() -> None:
    manager = logged_in()
    manager._server_url = refusing_url()
    manager.notify_era_change(2)
    until(lambda: manager._in_transient_backoff)


def era_change_with_threads_waiting() -> None:
    manager = logged_in()
    manager._server_url, wait = silent_url()
    manager.notify_era_change(2)
    wait()
    event = manager._auth_event
    for _ in range(THREADS):
        daemon(manager.get_token)
    until(lambda: len(event._cond._waiters) == THREADS)


def threads_taking_tokens() -> None:
    manager = logged_in()
    laps = [0] * THREADS

    def take(which: int) -> None:
        while True:
            manager.get_token()
            laps[which] += 1
            time.sleep(0.0002)

    for which in range(THREADS):
        daemon(lambda which=which: take(which))  # type: ignore[misc]
    until(lambda: min(laps) >= LAPS)


def threads_waiting_for_a_token() -> None:
    url, wait = silent_url()
    clock = Clock()
    manager = logged_in(clock=clock)
    renew_at(url, clock, manager)
    wait()
    event = manager._auth_event
    for _ in range(THREADS):
        daemon(manager.get_token)
    until(lambda: len(event._cond._waiters) == THREADS)


def threads_polling_an_expired_token() -> None:
    manager = logged_in(clock=Clock())
    manager._refresh_stop.set()
    manager._refresh_event.set()
    manager._refresh_thread.join(DEADLINE)
    manager._token_expiry = 1.0

    def poll() -> None:
        while True:
            try:
                manager.get_token()
            except auth.AuthError as error:
                assert error.reason == "token_expired"

    before = threading.active_count()
    for _ in range(THREADS):
        daemon(poll)
    until(lambda: threading.active_count() == before + THREADS)


def threads_sending_requests() -> None:
    laps = [0] * THREADS

    def send(which: int) -> None:
        while True:
            assert auth._default_http_transport("GET", CONFIG["http"] + "/_echo")[0] == 200
            laps[which] += 1

    for which in range(THREADS):
        daemon(lambda which=which: send(which))  # type: ignore[misc]
    until(lambda: min(laps) >= LAPS)


def threads_sending_https_requests() -> None:
    laps = [0] * THREADS

    def send(which: int) -> None:
        while True:
            assert auth._default_http_transport("GET", CONFIG["https"] + "/_echo")[0] == 200
            laps[which] += 1

    for which in range(THREADS):
        daemon(lambda which=which: send(which))  # type: ignore[misc]
    until(lambda: min(laps) >= LAPS)


def authenticate_in_http_request() -> None:
    url, wait = silent_url()
    manager = manager_of(url)
    daemon(manager.authenticate)
    wait()


def authenticate_in_https_request() -> None:
    url, wait = held_https_url()
    manager = manager_of(url)
    daemon(manager.authenticate)
    wait()


def authenticate_in_tls_handshake() -> None:
    url, wait = silent_url("https")
    daemon(manager_of(url).authenticate)
    wait()


def authenticate_in_busy_transport() -> None:
    busy = Busy()
    daemon(manager_of(CONFIG["http"], transport=busy).authenticate)
    busy.wait()


def authenticate_in_back_off() -> None:
    manager = manager_of(refusing_url())
    daemon(manager.authenticate)
    until(lambda: manager._in_transient_backoff)


def authenticate_again_and_again() -> None:
    manager = manager_of(CONFIG["http"])
    laps = [0]

    def renew() -> None:
        while True:
            manager.authenticate()
            laps[0] += 1

    daemon(renew)
    until(lambda: laps[0] >= 3)


def authenticate_with_many_waiters() -> None:
    url, wait = silent_url()
    manager = manager_of(url)
    daemon(manager.authenticate)
    wait()
    event = manager._auth_event
    for _ in range(THREADS):
        daemon(manager.authenticate)
    until(lambda: len(event._cond._waiters) == THREADS)


def rename_in_http_request() -> None:
    manager = logged_in()
    manager._server_url, wait = silent_url()
    daemon(lambda: manager.set_display_name("Ada"))
    wait()


def rename_in_tls_handshake() -> None:
    manager = logged_in()
    manager._server_url, wait = silent_url("https")
    daemon(lambda: manager.set_display_name("Ada"))
    wait()


def rename_in_busy_transport() -> None:
    manager, busy = logged_in(), Busy()
    manager._transport = busy
    daemon(lambda: manager.set_display_name("Ada"))
    busy.wait()


def rename_in_back_off() -> None:
    manager = logged_in()
    manager._server_url = refusing_url()
    daemon(lambda: manager.set_display_name("Ada"))
    until(lambda: manager._in_transient_backoff)


def close_waiting_for_the_refresh_thread() -> None:
    refresh_in_sleeping_transport()
    manager = next(one for one in KEPT if isinstance(one, auth.AuthManager))
    daemon(manager.close)
    until(lambda: manager._state == "CLOSED")


def transport_exits_on_refresh_thread() -> None:
    def transport(*_args: Any, **_options: Any) -> Any:
        sys.exit("from a transport")

    manager = renew_through(transport)
    until(lambda: manager._auth_error is not None)
    assert manager._state == "UNINITIALIZED"


def transport_exits_on_era_thread() -> None:
    def transport(*_args: Any, **_options: Any) -> Any:
        sys.exit("from a transport")

    manager = logged_in()
    manager._transport = transport
    manager.notify_era_change(2)
    until(lambda: manager._auth_error is not None)
    assert manager._state == "AUTHENTICATED"


def clock_exits_on_refresh_thread() -> None:
    clock = Clock()
    logged_in(clock=clock)
    laps = [0]

    def leave() -> None:
        laps[0] += 1
        sys.exit("from a clock")

    clock.on_background = leave
    # This does not end the thread, which calls again.
    until(lambda: laps[0] >= 3)


def closed_with_refresh_in_http_request() -> None:
    refresh_in_http_request()
    for manager in KEPT:
        if isinstance(manager, auth.AuthManager):
            manager.close()


SCENARIOS = {
    name: value
    for name, value in list(globals().items())
    if callable(value) and getattr(value, "__module__", None) == __name__ and not isinstance(value, type)
}

"""Programs that end while the component is busy; test_exit.py runs each of them in processes of its own.

Arguments: the scenario, the way to end, and a JSON object with the servers' URLs and the authority to trust.
The one line of output tells the monotonic time at which the program had nothing left to do.
"""

from __future__ import annotations

import atexit
import contextlib
import itertools
import json
import os
import secrets
import socket
import ssl
import sys
import threading
import time
from collections.abc import Callable
from typing import Any
from urllib.parse import urlsplit

from tessaline import auth

DEADLINE = 20.0
PAST_REFRESH = 80_000.0
MANAGERS = 6
THREADS = 4
LAPS = 20

CONFIG: dict[str, str] = {}
# Whatever a program holds on to when it ends.
KEPT: list[Any] = []


class Clock:
    """The machine's clock, which can be set ahead and given something to do by its background readers."""

    def __init__(self) -> None:
        self.ahead = 0.0
        self.on_background: Callable[[], object] = lambda: None
        self.read_by_background = threading.Event()

    def __call__(self) -> float:
        if threading.current_thread() is not threading.main_thread():
            self.read_by_background.set()
            self.on_background()
        return time.time() + self.ahead


class Silent:
    """Takes connections and what comes over them, and never answers."""

    def __init__(self) -> None:
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._listener.settimeout(DEADLINE)
        self._connections: list[socket.socket] = []
        self.port = self._listener.getsockname()[1]

    def wait_for_first_bytes(self) -> None:
        connection, _ = self._listener.accept()
        connection.settimeout(DEADLINE)
        assert connection.recv(1)
        self._connections.append(connection)


def until(condition: Callable[[], object]) -> None:
    limit = time.monotonic() + DEADLINE
    while not condition():
        assert time.monotonic() < limit, "what the scenario needs did not come about"
        time.sleep(0.001)


def daemon(target: Callable[[], object]) -> None:
    def run() -> None:
        # What a closed manager tells its callers is not what these programs are about.
        with contextlib.suppress(auth.AuthError):
            target()

    threading.Thread(target=run, daemon=True).start()


def manager_of(url: str, clock: Clock | None = None, transport: Any = None) -> Any:
    manager = auth.AuthManager(secrets.token_hex(32), url, clock=clock, _transport=transport)
    KEPT.append(manager)
    return manager


def logged_in(scheme: str = "http", clock: Clock | None = None) -> Any:
    manager = manager_of(CONFIG[scheme], clock)
    manager.authenticate()
    return manager


def control(name: str, body: dict[str, Any]) -> None:
    """Ask something of the HTTPS server itself."""
    # Most programs do not need it, and there are hundreds of them.
    import http.client

    address = urlsplit(CONFIG["https"])
    context = ssl.create_default_context(cafile=CONFIG["ca"])
    connection = http.client.HTTPSConnection(address.netloc, timeout=2 * DEADLINE, context=context)
    headers = {"Content-Type": "application/json"}
    connection.request("POST", f"/_control/{name}", json.dumps(body), headers)
    answer = connection.getresponse()
    assert answer.status == 200, answer.read()
    connection.close()


def held_https_url() -> tuple[str, Callable[[], None]]:
    """A base URL below which registration is never answered, and how to wait for it."""
    path = f"/_echo/{os.getpid()}-{secrets.token_hex(4)}"
    endpoint = f"{path}/auth/register"
    control("faults", {endpoint: [{"kind": "hold", "times": None}]})
    return CONFIG["https"] + path, lambda: control(
        "wait", {"endpoint": endpoint, "count": 1, "timeout": DEADLINE}
    )


def renew_at(url: str, clock: Clock, manager: Any) -> None:
    manager._server_url = url
    clock.ahead += PAST_REFRESH


def renew_through(transport: Any) -> Any:
    clock = Clock()
    manager = logged_in(clock=clock)
    manager._transport = transport
    clock.ahead += PAST_REFRESH
    return manager


# Scenarios: each returns when the component is busy with what its name says.


def idle() -> None:
    logged_in()


def idle_with_injected_clock() -> None:
    logged_in(clock=Clock())


def idle_refresh_threads_of_many_managers() -> None:
    for _ in range(MANAGERS):
        logged_in(clock=Clock())


def refresh_in_http_request() -> None:
    silent, clock = Silent(), Clock()
    KEPT.append(silent)
    renew_at(f"http://127.0.0.1:{silent.port}", clock, logged_in(clock=clock))
    silent.wait_for_first_bytes()


def refresh_in_https_request() -> None:
    url, wait = held_https_url()
    clock = Clock()
    renew_at(url, clock, logged_in("https", clock))
    wait()


def refresh_in_tls_handshake() -> None:
    silent, clock = Silent(), Clock()
    KEPT.append(silent)
    renew_at(f"https://127.0.0.1:{silent.port}", clock, logged_in(clock=clock))
    silent.wait_for_first_bytes()


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
    # Bound and not listening: nobody else gets the port, and connections are refused.
    refusing = socket.socket()
    refusing.bind(("127.0.0.1", 0))
    KEPT.append(refusing)
    renew_at(f"http://127.0.0.1:{refusing.getsockname()[1]}", clock, manager)
    until(lambda: manager._in_transient_backoff)


def era_change_in_http_request() -> None:
    silent = Silent()
    KEPT.append(silent)
    manager = logged_in()
    manager._server_url = f"http://127.0.0.1:{silent.port}"
    manager.notify_era_change(2)
    silent.wait_for_first_bytes()


def era_change_in_busy_transport() -> None:
    entered = threading.Event()

    def transport(*_args: Any, **_options: Any) -> Any:
        while True:
            entered.set()
            time.sleep(0.0002)

    manager = logged_in()
    manager._transport = transport
    manager.notify_era_change(2)
    assert entered.wait(DEADLINE)


def threads_taking_tokens() -> None:
    manager = logged_in()
    laps = [0] * THREADS

    def take(which: int) -> None:
        while True:
            manager.get_token()
            laps[which] += 1
            time.sleep(0.0002)

    for which in range(THREADS):
        daemon(lambda which=which: take(which))
    until(lambda: min(laps) >= LAPS)


def threads_waiting_for_a_token() -> None:
    silent, clock = Silent(), Clock()
    KEPT.append(silent)
    manager = logged_in(clock=clock)
    renew_at(f"http://127.0.0.1:{silent.port}", clock, manager)
    silent.wait_for_first_bytes()
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
        daemon(lambda which=which: send(which))
    until(lambda: min(laps) >= LAPS)


def threads_sending_https_requests() -> None:
    laps = [0] * THREADS

    def send(which: int) -> None:
        while True:
            assert auth._default_http_transport("GET", CONFIG["https"] + "/_echo")[0] == 200
            laps[which] += 1

    for which in range(THREADS):
        daemon(lambda which=which: send(which))
    until(lambda: min(laps) >= LAPS)


def authenticate_in_http_request() -> None:
    silent = Silent()
    KEPT.append(silent)
    manager = manager_of(f"http://127.0.0.1:{silent.port}")
    daemon(manager.authenticate)
    silent.wait_for_first_bytes()


def authenticate_in_https_request() -> None:
    url, wait = held_https_url()
    manager = manager_of(url)
    daemon(manager.authenticate)
    wait()


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
    silent = Silent()
    KEPT.append(silent)
    manager = manager_of(f"http://127.0.0.1:{silent.port}")
    daemon(manager.authenticate)
    silent.wait_for_first_bytes()
    event = manager._auth_event
    for _ in range(THREADS):
        daemon(manager.authenticate)
    until(lambda: len(event._cond._waiters) == THREADS)


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
    # The thread does not end by it, and asks again.
    until(lambda: laps[0] >= 3)


def closed_with_refresh_in_http_request() -> None:
    refresh_in_http_request()
    for manager in KEPT:
        if isinstance(manager, auth.AuthManager):
            manager.close()


SCENARIOS = {
    name: value
    for name, value in list(globals().items())
    if callable(value)
    and getattr(value, "__module__", None) == __name__
    and name.partition("_")[0]
    in {"idle", "refresh", "era", "threads", "authenticate", "transport", "clock", "closed"}
}


def close_at_exit() -> None:
    def close_all() -> None:
        for manager in KEPT:
            if isinstance(manager, auth.AuthManager):
                manager.close()

    atexit.register(close_all)


def main() -> None:
    scenario, ending, config = sys.argv[1:]
    CONFIG.update(json.loads(config))
    SCENARIOS[scenario]()
    if ending == "closing_at_exit":
        close_at_exit()
    print(time.monotonic(), flush=True)
    if ending == "calling_exit":
        sys.exit(0)


if __name__ == "__main__":
    main()

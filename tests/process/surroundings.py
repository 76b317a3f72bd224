"""What the programs use: a clock, servers that do not respond or hold a request, threads."""

from __future__ import annotations

import contextlib
import json
import os
import secrets
import socket
import ssl
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
# Objects that a program refers to when it exits.
KEPT: list[Any] = []


class Clock:
    """The wall clock, which can be set ahead and can run code when background threads read it."""

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
    """Accepts connections and requests, and never responds."""

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
        # The errors that callers get from a closed manager are not the subject of these programs.
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
    """Send a control request to the HTTPS server."""
    # Imported late: most programs do not need it, and there are hundreds of them.
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
    """A base URL under which registration gets no response, and how to wait for a request."""
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


def silent_url(scheme: str = "http") -> tuple[str, Callable[[], None]]:
    """A URL at which neither a request nor a handshake gets a response, and how to wait for its begin."""
    silent = Silent()
    KEPT.append(silent)
    return f"{scheme}://127.0.0.1:{silent.port}", silent.wait_for_first_bytes


def refusing_url() -> str:
    """A URL at which connections are refused: the port is reserved, and nothing listens."""
    refusing = socket.socket()
    refusing.bind(("127.0.0.1", 0))
    KEPT.append(refusing)
    return f"http://127.0.0.1:{refusing.getsockname()[1]}"


class Busy:
    """A transport that never returns and lets other threads run meanwhile."""

    def __init__(self) -> None:
        self.entered = threading.Event()

    def __call__(self, *_args: Any, **_options: Any) -> Any:
        while True:
            self.entered.set()
            time.sleep(0.0002)

    def wait(self) -> None:
        assert self.entered.wait(DEADLINE)


def print_time() -> None:
    """Print that from now on there is nothing left to do."""
    print(time.monotonic(), flush=True)

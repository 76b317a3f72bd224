"""An exchange is that of the default transport, except for the settings."""

from __future__ import annotations

import os
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from devserver.testing import DevServer
from tessaline import auth, http
from tests.shared.threads import Worker
from tests.transport.programs import FORKING, told_by
from tests.transport.raw import OK, RawServer, keep_silent
from tests.transport.reference import echoed
from tests.transport.tls_server import Serve
from tests.transport.tunnel import says, tunnel_to

from .readings import KEY, failure, waited

Raw = Callable[..., RawServer]

NAME = "my-program/1.0 (by a test)"


def agents(server: RawServer, which: int = -1) -> list[str]:
    return [line for line in server.header_lines(which) if line.lower().startswith("user-agent:")]


def echo(transport: Any, *given: Any, **named: Any) -> dict[str, Any]:
    """The request that the echo of the development server received."""
    return echoed(transport(*given, **named))


def test_what_goes_out_and_what_comes_back(server: DevServer) -> None:
    given = ("POST", f"{server.url}/_echo?a=b", {"X-Own": "caf\xe9"}, '{"a": "\N{SNOWMAN}"}')
    told = [echo(transport, *given) for transport in (http.transport(), auth._default_http_transport)]
    assert told[0] == told[1]
    assert told[0]["body"] == given[3].encode()
    assert echo(http.transport(), given[0], given[1], body=given[3], headers=given[2]) == told[0]


@pytest.mark.parametrize(
    "options", [{}, {"timeout": 5.0, "user_agent": NAME, "on_exchange": lambda *_: None}]
)
def test_connections_are_those_of_the_default_transport(options: dict[str, Any], raw: Raw) -> None:
    server = raw(keep_alive=True)
    made = http.transport(**options)
    for transport in (made, auth._default_http_transport, made, http.transport()):
        assert transport("GET", server.url)[0] == 200
    assert (len(server.requests), server.connections) == (4, 1)


def test_the_library_is_loaded_once() -> None:
    transports = (http.transport(), auth._default_http_transport)
    assert all(isinstance(failure(transport, "GET", "nowhere"), ValueError) for transport in transports)
    mapped = {line.split()[-1] for line in Path("/proc/self/maps").read_text().splitlines() if "/" in line}
    assert len([path for path in mapped if os.path.basename(path) == "libtessaline_http.so"]) == 1


@pytest.mark.parametrize(
    "given",
    [
        ("GET", "ftp://127.0.0.1/"),
        ("G T", "http://127.0.0.1/"),
        ("GET", "http://127.0.0.1/", {"A": "b\r\nC: d"}),
        ("GET", "http://127.0.0.1/", 7),
        ("GET", "http://127.0.0.1/", None, 7),
    ],
)
def test_what_cannot_be_sent(given: tuple[Any, ...]) -> None:
    made, default = (failure(one, *given) for one in (http.transport(), auth._default_http_transport))
    assert (type(made), str(made)) == (type(default), str(default))
    assert isinstance(made, TypeError | ValueError)


def test_a_login(server: DevServer, tmp_path: Path) -> None:
    transport = http.transport(timeout=10.0, proxy="", user_agent=NAME, longest_retry_after=60)
    with auth.AuthManager(KEY, server.url, _transport=transport) as manager:
        manager.authenticate()
        assert manager.get_token().count(".") == 2


class TestTimeout:
    def test_is_of_the_whole_exchange(self, raw: Raw) -> None:
        silent = raw(keep_silent)
        server = raw(says(302, f"Location: {silent.url}/"))
        begun = time.monotonic()
        error = failure(http.transport(timeout=0.2), "GET", server.url)
        assert type(error) is TimeoutError
        assert 0.1 < time.monotonic() - begun < 10.0
        assert len(silent.requests) == 1

    def test_is_not_that_of_the_module(self, raw: Raw, monkeypatch: pytest.MonkeyPatch) -> None:
        def unwanted() -> float:
            raise AssertionError("asked for the module's time-out")

        monkeypatch.setattr(auth, "_auth_http_timeout_seconds", unwanted)
        assert http.transport()("GET", raw().url)[0] == 200
        assert type(failure(http.transport(timeout=0.05), "GET", raw(keep_silent).url)) is TimeoutError

    def test_of_one_transport_is_not_anothers(self, raw: Raw) -> None:
        short, long = http.transport(timeout=0.05), http.transport(timeout=3600)
        server = raw(keep_silent, OK)
        assert type(failure(short, "GET", server.url)) is TimeoutError
        assert long("GET", server.url)[0] == 200


class TestUserAgent:
    def test_is_sent_to_the_server(self, raw: Raw) -> None:
        server = raw()
        assert http.transport(user_agent=NAME)("GET", server.url)[0] == 200
        assert agents(server) == [f"User-Agent: {NAME}"]

    def test_is_that_of_the_package_without_one(self, raw: Raw) -> None:
        server = raw()
        for transport in (http.transport(), auth._default_http_transport):
            assert transport("GET", server.url)[0] == 200
        assert agents(server, 0) == agents(server, 1)
        assert agents(server, 0)[0].startswith("User-Agent: tessaline/")

    def test_follows_a_redirect(self, raw: Raw) -> None:
        server = raw(says(302, "Location: /there"), OK)
        assert http.transport(user_agent=NAME)("GET", server.url)[0] == 200
        assert [agents(server, which) for which in range(2)] == [[f"User-Agent: {NAME}"]] * 2

    def test_gives_way_to_that_of_a_request(self, raw: Raw) -> None:
        server = raw()
        assert http.transport(user_agent=NAME)("GET", server.url, headers={"user-agent": "other/2"})[0] == 200
        assert agents(server) == ["user-agent: other/2"]

    def test_is_told_to_a_proxy_too(self, raw: Raw, secured: Serve) -> None:
        server = secured()
        proxy = raw(tunnel_to(server.port))
        assert http.transport(user_agent=NAME, proxy=proxy.url)("GET", server.url)[0] == 200
        assert agents(proxy) == agents(server) == [f"User-Agent: {NAME}"]


class TestLongestRetryAfter:
    @pytest.mark.parametrize("name", ["Retry-After", "retry-after"])
    @pytest.mark.parametrize(("told", "waits"), [("86400", 60), ("9" * 5000, 60), ("60", 60), ("7", 7)])
    def test_bounds_what_a_manager_waits(self, name: str, told: str, waits: int, raw: Raw) -> None:
        server = raw(says(429, f"{name}: {told}"))
        assert waited(http.transport(longest_retry_after=60), server.url) == [waits] * 2

    def test_without_it_a_server_is_obeyed(self, raw: Raw) -> None:
        server = raw(says(429, "Retry-After: 86400"))
        assert waited(http.transport(), server.url) == [86400] * 2


def test_many_threads_at_once(server: DevServer) -> None:
    transport = http.transport(user_agent=NAME, longest_retry_after=60, on_exchange=lambda *_: None)

    def ask(number: int) -> None:
        for _ in range(10):
            body = f"of {number}"
            assert echo(transport, "POST", server.url + "/_echo", body=body)["body"] == body.encode()

    for worker in [Worker(ask, number) for number in range(8)]:
        worker.result()


# The first request of the process is this module's, not that of tessaline.auth.
FIRST = """
from tessaline import http
(url,) = arguments
print(json.dumps(http.transport()("GET", url)[0]))
"""

CHILD = """
from tessaline import http
(url,) = arguments
transport = http.transport(longest_retry_after=60, on_exchange=lambda *_: None)
def work():
    return transport("GET", url)[0] == 200
assert work()
print(json.dumps([code_of_child(work), code_of_child(work), work()]))
"""

INTERRUPTED = """
from tessaline import http
(url,) = arguments
told = []
transport = http.transport(on_exchange=lambda path, status, seconds: told.append([path, status]))
try:
    transport("GET", url)
except KeyboardInterrupt:
    print(json.dumps(told))
"""


@pytest.mark.process
def test_the_first_request_of_a_program(server: DevServer) -> None:
    assert told_by(FIRST, server.url + "/_echo") == 200


@pytest.mark.process
def test_a_forked_child_goes_on(server: DevServer) -> None:
    assert told_by(CHILD, server.url + "/_echo", helpers=FORKING) == [0, 0, True]


@pytest.mark.process
def test_ctrl_c_ends_it(server: DevServer) -> None:
    path = "/_echo/held"
    server.faults(path, [{"kind": "hold"}])
    told = told_by(INTERRUPTED, server.url + path, interrupt_at=(server, path))
    assert told == [[path, None]]

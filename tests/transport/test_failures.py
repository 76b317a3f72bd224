"""Failures below HTTP: Python's exception for each, whose text names the peer and nothing of the request."""

from __future__ import annotations

import errno
import http.client
import socket
import ssl
import time
from collections.abc import Callable
from typing import Any

import pytest

from devserver.testing import DevServer
from tessaline import auth

from .raw import CLOSE, OK, RawServer, keep_silent, reset, trickle
from .reference import failure, transport

Raw = Callable[..., RawServer]

SECRET = "s3cret-value-that-must-not-show"
SLACK = 1.0


def failed(base: str) -> BaseException:
    """The failure of a request that is full of secrets."""
    url = f"{base}/{SECRET}?{SECRET}"
    error = failure("POST", url, {"Authorization": f"Bearer {SECRET}", f"X-{SECRET}": "1"}, SECRET)
    peer = base.partition("://")[2]
    assert peer in str(error)
    if SECRET in str(error) + repr(error) + repr(error.args) + repr(vars(error)):
        raise AssertionError("the error shows what was to be sent")
    return error


def test_refused(unused_port: int) -> None:
    error = failed(f"http://127.0.0.1:{unused_port}")
    assert type(error) is ConnectionRefusedError
    assert error.errno == errno.ECONNREFUSED


def test_unreachable() -> None:
    # A broadcast address: the system refuses to connect to it before anything is sent.
    error = failed("http://127.255.255.255:9")
    assert type(error) is ConnectionError
    assert error.errno == errno.EHOSTUNREACH


def test_a_name_that_cannot_be_resolved() -> None:
    # Too long for a name, so no resolver is asked.
    error = failed(f"http://{'a' * 64}.test:80")
    assert type(error) is ConnectionError


@pytest.mark.parametrize(
    ("answer", "kind"),
    [
        (reset, ConnectionResetError),
        (CLOSE, ConnectionResetError),
        (b"HTTP/1.1 2", ConnectionError),
        (b"HTTP/1.1 200 OK\r\nContent-Le", ConnectionError),
        (b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nabc", ConnectionError),
        (b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nabc", ConnectionError),
        (b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n", ConnectionError),
    ],
    ids=["reset", "closed", "cut_line", "cut_head", "cut_body", "cut_chunk", "missing_chunk"],
)
def test_a_connection_that_breaks(answer: Any, kind: type[Exception], raw: Raw) -> None:
    server = raw(answer)
    error = failed(server.url)
    assert isinstance(error, kind)
    assert len(server.requests) == 1


@pytest.mark.parametrize(
    "fault", [{"kind": "reset"}, {"kind": "close"}, {"kind": "close", "close_notify": False}]
)
def test_a_connection_that_breaks_under_tls(fault: dict[str, Any], trusted: DevServer) -> None:
    path = f"/{SECRET}"
    trusted.faults(path, [{**fault, "times": None}])
    assert isinstance(failed_at(trusted, path), ConnectionError)


@pytest.mark.parametrize("close_notify", [True, False])
def test_a_body_that_is_cut_under_tls(close_notify: bool, trusted: DevServer) -> None:
    path = f"/{SECRET}"
    cut = {"kind": "cut_body", "status": 200, "body": "x" * 100, "sent": 50, "close_notify": close_notify}
    trusted.faults(path, [{**cut, "times": None}])
    assert isinstance(failed_at(trusted, path), ConnectionError)


def failed_at(server: DevServer, path: str) -> BaseException:
    error = failure("POST", server.url + path, {"Authorization": SECRET}, SECRET)
    assert f"127.0.0.1:{server.port}" in str(error)
    if SECRET in str(error) + repr(error):
        raise AssertionError("the error shows what was to be sent")
    return error


@pytest.mark.parametrize(
    "answer",
    [
        b"no HTTP at all\r\n\r\n",
        b"SSH-2.0-OpenSSH_9.2\r\n",
        b"\x16\x03\x01\x00\x05hello\r\n\r\n",
        b"HTTP/9.9 200 OK\r\n\r\n",
        b"HTTP/1.1 abc OK\r\n\r\n",
        b"\r\n\r\n\r\n",
        f"{SECRET}\r\n\r\n".encode(),
    ],
    ids=["words", "ssh", "tls", "version", "status", "blank_lines", "secret"],
)
def test_an_answer_that_is_no_http(answer: bytes, raw: Raw) -> None:
    error = failed(raw(answer).url)
    assert type(error) is http.client.BadStatusLine
    assert not isinstance(error, OSError)


def test_plain_http_where_tls_is_expected(server: DevServer) -> None:
    error = failed(f"https://127.0.0.1:{server.port}")
    assert type(error) is ssl.SSLError
    assert not isinstance(error, ConnectionError | TimeoutError)


def test_a_certificate_that_is_not_trusted(https_server: DevServer, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.delenv("SSL_CERT_FILE", raising=False)
    error = failed(f"https://127.0.0.1:{https_server.port}")
    assert type(error) is ssl.SSLCertVerificationError
    assert https_server.state()["counts"].get("/_echo", 0) == 0


class TestTimeOut:
    SECONDS = 0.3

    @pytest.fixture(autouse=True)
    def impatient(self, monkeypatch: pytest.MonkeyPatch) -> None:
        monkeypatch.setattr(auth, "_auth_http_timeout_seconds", lambda: self.SECONDS)

    def check(self, call: Callable[..., BaseException], *args: Any) -> None:
        begun = time.monotonic()
        error = call(*args)
        took = time.monotonic() - begun
        assert type(error) is TimeoutError
        assert self.SECONDS * 0.9 <= took < self.SECONDS + SLACK

    @pytest.mark.parametrize(
        "answer",
        [
            keep_silent,
            trickle(b"HTTP/1.1 200 O", 0.03),
            trickle(b"HTTP/1.1 200 OK\r\nX-Long: ", 0.03),
            trickle(b"HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n", 0.03),
            trickle(b"HTTP/1.1 200 OK\r\n\r\n", 0.03),
        ],
        ids=["silence", "status_line", "headers", "body", "endless_body"],
    )
    def test_the_whole_request_is_bounded(self, answer: Any, raw: Raw) -> None:
        self.check(failed, raw(answer).url)

    def test_a_handshake_that_is_not_answered(self, raw: Raw) -> None:
        with socket.create_server(("127.0.0.1", 0)) as silent:
            self.check(failed, f"https://127.0.0.1:{silent.getsockname()[1]}")

    def test_a_connection_that_is_not_taken(self) -> None:
        with socket.socket() as busy:
            busy.bind(("127.0.0.1", 0))
            busy.listen(0)
            port = busy.getsockname()[1]
            queue = [socket.socket() for _ in range(8)]
            try:
                for waiting in queue:
                    waiting.setblocking(False)
                    waiting.connect_ex(("127.0.0.1", port))
                self.check(failed, f"http://127.0.0.1:{port}")
            finally:
                for waiting in queue:
                    waiting.close()

    def test_redirects_share_one_bound(self, server: DevServer) -> None:
        late = {"kind": "redirect", "status": 302, "delay": 0.12}
        for hop in range(9):
            server.faults(f"/_echo/{hop}", [{**late, "location": f"/_echo/{hop + 1}"}])
        self.check(failure, "GET", server.url + "/_echo/0")

    def test_the_bound_is_read_for_every_request(
        self, server: DevServer, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        asked: list[None] = []
        monkeypatch.setattr(auth, "_auth_http_timeout_seconds", lambda: asked.append(None) or 20.0)
        for _ in range(3):
            transport("GET", server.url + "/_echo")
        assert len(asked) == 3

    def test_a_bound_that_cannot_be_had_sends_nothing(
        self, raw: Raw, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        def raising() -> float:
            raise LookupError("no bound today")

        server = raw()
        monkeypatch.setattr(auth, "_auth_http_timeout_seconds", raising)
        assert type(failure("GET", server.url)) is LookupError
        monkeypatch.setattr(auth, "_auth_http_timeout_seconds", lambda: "soon")
        assert type(failure("GET", server.url)) is TypeError
        assert server.connections == 0

    def test_a_connection_that_timed_out_is_not_used_again(self, raw: Raw) -> None:
        server = raw(keep_silent, OK)
        self.check(failed, server.url)
        assert transport("GET", server.url)[0] == 200
        assert server.connections == 2


def test_the_bound_is_thirty_seconds() -> None:
    assert auth._auth_http_timeout_seconds() == auth._AUTH_HTTP_TIMEOUT_DEFAULT == 30.0

"""A hostile server on a socket against a whole manager with the default transport.

Each line provides for a request:

    r STATUS [Name=value]... | BODY    a response with its length
    w BYTES                            these bytes, with \\r, \\n and \\xNN as in Python
    z                                  the connection ends
    g                                  a successful response, as to every request after the last line
"""

from __future__ import annotations

import http.client
import itertools
import re
import time
import types
from typing import Any

from tessaline import auth

from ..hosted import KEY, text_of, words_of
from ..hostile import Hostile
from ..raw_server import RawServer, kept_on_loopback
from .flow import DOCUMENTED, OF_ANSWERS, number

VOCABULARY = (
    *("g", "z", "g\ng", "r 200 | $GRANT", "r 200 | {}", "r 401 |", "r 429 Retry-After=7 |", "r 503 |"),
    *(f"r {status} Location=/elsewhere | " for status in (301, 302, 303, 307, 308)),
    "r 302 Location=http://other.test/x | ",
    "r 302 Location=https://127.0.0.1:1/x | ",
    "r 302 Location=//%A2/ | ",
    'r 200 | {"challenge_id":"c","message":"m"}',
    "w HTTP/1.1 200 OK\\r\\n\\r\\n{}",
    "w HTTP/1.1 100 Continue\\r\\n\\r\\nHTTP/1.1 204 No\\r\\n\\r\\n",
    "w HTTP/1.1 200 OK\\r\\nTransfer-Encoding: chunked\\r\\n\\r\\n2\\r\\n{}\\r\\n0\\r\\nX: y\\r\\n\\r\\n",
    "w HTTP/1.1 200 OK\\r\\nContent-Length: 9\\r\\n\\r\\n{}",
    "w HTTP/1.1 200 OK\\r\\nRetry-After: \\xff\\r\\nContent-Length: 2\\r\\n\\r\\n{}",
    "w HTTP/2 200\\r\\n\\r\\n",
    "w \\x00\\xff",
)
OF_TRANSPORTS = (OSError, http.client.HTTPException)
LONGEST = 10.0
LINE_ENDS = {b"r": b"\r", b"n": b"\n"}
ESCAPE = re.compile(rb"\\(r|n|x[0-9a-fA-F]{2})")

server = RawServer()


class QuickTime:
    """A `time` without long sleeps."""

    def __init__(self) -> None:
        leaps = itertools.count(0.0, 2.0)
        self.monotonic = lambda: next(leaps)
        self.sleep = lambda seconds: None

    def __getattr__(self, name: str) -> Any:
        return getattr(time, name)


def framed(status: int, headers: dict[str, str], body: bytes) -> bytes:
    fields = {"Content-Length": str(len(body)), **headers}
    lines = [f"HTTP/1.1 {status} Reason", *(f"{name}: {value}" for name, value in fields.items())]
    return "\r\n".join([*lines, "", ""]).encode("latin-1", "replace") + body


def unescaped(text: str) -> bytes:
    def byte(found: re.Match[bytes]) -> bytes:
        return LINE_ENDS.get(found[1]) or bytes([int(found[1][1:], 16)])

    return ESCAPE.sub(byte, text.encode("utf-8", "surrogateescape"))


class Wire:
    def __init__(self, lines: list[str]) -> None:
        self.lines = lines
        self.hostile = Hostile("")

    def __call__(self, head: bytes, body: bytes) -> tuple[bytes, bool] | None:
        assert KEY.encode() not in head + body
        line = self.lines.pop(0) if self.lines else "g"
        word, _, rest = line.partition(" ")
        if word == "z":
            return None
        if word == "w":
            return unescaped(rest), False
        if word == "r":
            start, _, text = rest.partition(" | ")
            status, *fields = start.split(" ")
            headers = dict(field.split("=", 1) for field in fields if "=" in field)
            return framed(number(status), headers, self.hostile.filled_in(text)), True
        method, path, _ = head.decode("latin-1").split("\r\n")[0].split(" ", 2)
        if method != "POST":
            return framed(200, {}, b"{}"), True
        answered = self.hostile("POST", f"https://auth.example.test{path}", body=body)
        return framed(*answered), True


def one_input(data: bytes) -> None:
    wire = Wire(text_of(data).split("\n"))
    usual = auth._time, auth.random
    auth._time, auth.random = QuickTime(), types.SimpleNamespace(uniform=lambda low, high: 0.0)  # type: ignore[assignment]
    server.begin(wire)
    begun = time.monotonic()
    manager = auth.AuthManager(KEY, server.url, clock=lambda: 1e6)
    try:
        wire.hostile.address = manager.get_wallet_address()
        with kept_on_loopback(server.url):
            play(manager, wire.hostile)
    finally:
        manager.close()
        heads = server.end()
        auth._time, auth.random = usual
    assert manager._state == "CLOSED"
    assert (manager._private_key, manager._token, manager._wallet_secret) == (None, None, None)
    assert time.monotonic() - begun < LONGEST
    check_requests(heads)


def play(manager: Any, hostile: Hostile) -> None:
    for call in (manager.authenticate, manager.authenticate, manager.get_token):
        attempt(call, hostile)
    attempt(lambda: manager.set_display_name("Ada"), hostile)
    assert manager._state in ("AUTHENTICATED", "UNINITIALIZED")
    assert (manager._token is not None) == (manager._state == "AUTHENTICATED")


def attempt(call: Any, hostile: Hostile) -> None:
    try:
        call()
    except Exception as error:
        assert isinstance(error, DOCUMENTED + OF_ANSWERS + OF_TRANSPORTS), repr(error)
        assert not isinstance(error, FileNotFoundError | PermissionError), repr(error)
        said = words_of(error)
        assert KEY not in said
        assert not any(token in said for token in hostile.granted)
        assert hostile.encoded(hostile.secret) not in said


def check_requests(heads: list[bytes]) -> None:
    own = b"\r\nHost: " + server.url.removeprefix("http://").encode() + b"\r\n"
    for head in heads:
        assert own in head or b"\r\nauthorization:" not in head.lower(), "credentials went elsewhere"

"""Bytes of a server through the default transport: a documented result, equal to that of `http.client`.

The first byte selects the method; 0x01 and 0x02 end a response, the latter the connection too.
"""

from __future__ import annotations

import http.client
import io
from collections import deque
from typing import Any

from tessaline import auth

from ..hosted import outcome, words_of
from ..raw_server import RawServer, kept_on_loopback

METHODS = ("POST", "GET", "HEAD", "PUT")
HIDDEN = "nobody-is-told-of-this"
DOCUMENTED = (OSError, http.client.HTTPException)
NO_FAULT_OF_A_SERVER = (FileNotFoundError, PermissionError, InterruptedError)

server = RawServer()


def answers_in(data: bytes) -> deque[tuple[bytes, bool]]:
    answers: deque[tuple[bytes, bool]] = deque()
    begun = 0
    for place, byte in enumerate(data):
        if byte in (1, 2):
            answers.append((data[begun:place], byte == 1))
            begun = place + 1
    answers.append((data[begun:], False))
    return answers


def one_input(data: bytes) -> None:
    if HIDDEN.encode() in data:
        return
    method = METHODS[data[0] % len(METHODS)] if data else "POST"
    answers = answers_in(data[1:])
    first = answers[0]
    server.begin(lambda head, body: answers.popleft() if answers else None)
    body = None if method in ("GET", "HEAD") else "{}"
    headers = {"Authorization": HIDDEN, "Content-Type": "application/json"}
    with kept_on_loopback(server.url):
        got = outcome(auth._default_http_transport, method, f"{server.url}/{HIDDEN}", headers, body)
    heads = server.end()
    check_requests(heads)
    if isinstance(got, Exception):
        assert isinstance(got, DOCUMENTED) and not isinstance(got, NO_FAULT_OF_A_SERVER), repr(got)
        assert HIDDEN not in words_of(got)
        return
    check_answer(got)
    if len(heads) == 1:
        check_against_library(method, first, got)


def check_requests(heads: list[bytes]) -> None:
    assert heads
    own = server.url.removeprefix("http://").encode()
    for head in heads:
        at_home = b"\r\nHost: " + own + b"\r\n" in head
        assert at_home or HIDDEN.encode() not in head, head


def check_answer(answer: Any) -> None:
    status, headers, body = answer
    assert type(status) is int and type(headers) is dict and type(body) is bytes
    names = [name.lower() for name in headers]
    assert len(names) == len(set(names))
    assert all(type(value) is str and value == value.strip(" \t") for value in headers.values())


class Bytes:
    """The part of a socket's interface that `http.client` needs to read a response."""

    def __init__(self, data: bytes) -> None:
        self.makefile = lambda mode: io.BytesIO(data)


def by_library(method: str, data: bytes) -> Any:
    answer = http.client.HTTPResponse(Bytes(data), method=method)  # type: ignore[arg-type]
    answer.begin()
    return answer.status, answer.headers, answer.read()


def check_against_library(method: str, first: tuple[bytes, bool], ours: Any) -> None:
    """If both parse a response with unambiguous framing, the results are equal."""
    theirs = outcome(by_library, method, first[0])
    if isinstance(theirs, Exception):
        return
    status, headers, body = theirs
    framing = [value.lower() for value in headers.get_all("transfer-encoding", [])]
    lengths = headers.get_all("content-length", [])
    if framing not in ([], ["chunked"]) or len(lengths) > 1 or (framing and lengths) or headers.defects:
        return
    if not (framing or lengths) or not 200 <= status < 600:
        return
    assert ours[0] == status
    assert ours[2] == body, (ours, theirs)

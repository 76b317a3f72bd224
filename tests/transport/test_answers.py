"""Every response is a result: status, headers as a dict, body as bytes."""

from __future__ import annotations

import gzip
from collections.abc import Callable

import pytest

from devserver.testing import DevServer

from .raw import RawServer
from .reference import by_url_library, echoed, transport

Raw = Callable[..., RawServer]


def test_every_status_is_a_result(either: DevServer) -> None:
    statuses = list(range(200, 600))
    either.faults(
        "/_echo", [{"kind": "status", "status": status, "body": str(status)} for status in statuses]
    )
    for status in statuses:
        answered, headers, body = transport("GET", either.url + "/_echo")
        assert answered == status
        assert type(headers) is dict
        assert body == (b"" if status in (204, 304) else str(status).encode())


@pytest.mark.parametrize("status", [600, 799, 999])
def test_statuses_that_nobody_has_defined(status: int, raw: Raw) -> None:
    server = raw(f"HTTP/1.1 {status} Odd\r\nContent-Length: 3\r\n\r\nodd".encode())
    assert transport("GET", server.url) == (status, {"Content-Length": "3"}, b"odd")


@pytest.mark.parametrize(
    "line", [b"HTTP/1.1 200", b"HTTP/1.1 200 ", b"HTTP/1.0 200 OK", b"HTTP/1.1 200 \xe9t\xe9"]
)
def test_status_lines(line: bytes, raw: Raw) -> None:
    assert transport("GET", raw(line + b"\r\n\r\nbody").url) == (200, {}, b"body")


def test_header_names_keep_their_spelling(raw: Raw) -> None:
    server = raw(b"HTTP/1.1 200 OK\r\nX-odd-SPELLING: a\r\nretry-after: 7\r\nContent-Length: 0\r\n\r\n")
    _, headers, _ = transport("GET", server.url)
    assert headers == {"X-odd-SPELLING": "a", "retry-after": "7", "Content-Length": "0"}
    assert headers == by_url_library("GET", server.url)[1]


def test_of_repeated_headers_the_first_stays(raw: Raw) -> None:
    server = raw(
        b"HTTP/1.1 200 OK\r\nSet-Cookie: a=1\r\nX-One: first\r\nset-cookie: b=2\r\nX-One: second\r\n"
        b"x-ONE: third\r\nContent-Length: 0\r\n\r\n"
    )
    _, headers, _ = transport("GET", server.url)
    assert headers == {"Set-Cookie": "a=1", "X-One": "first", "Content-Length": "0"}
    assert list(headers) == ["Set-Cookie", "X-One", "Content-Length"]


def test_header_values(raw: Raw) -> None:
    server = raw(
        b"HTTP/1.1 200 OK\r\nX-Empty:\r\nX-Blank:   \r\nX-Padded: \t a b \t\r\nX-Colon: a:b: c\r\n"
        b"X-Latin: caf\xe9\r\nContent-Length: 0\r\n\r\n"
    )
    _, headers, _ = transport("GET", server.url)
    assert headers == {
        "X-Empty": "",
        "X-Blank": "",
        "X-Padded": "a b",
        "X-Colon": "a:b: c",
        "X-Latin": "caf\xe9",
        "Content-Length": "0",
    }


def test_interim_answers_leave_no_trace(raw: Raw) -> None:
    server = raw(
        b"HTTP/1.1 100 Continue\r\nX-Interim: 1\r\n\r\n"
        b"HTTP/1.1 103 Early Hints\r\nLink: </style.css>\r\n\r\n"
        b"HTTP/1.1 201 Created\r\nX-Final: 1\r\nContent-Length: 2\r\n\r\nok"
    )
    assert transport("POST", server.url, None, "x") == (201, {"X-Final": "1", "Content-Length": "2"}, b"ok")


def test_an_answer_without_headers_and_body(raw: Raw) -> None:
    assert transport("GET", raw(b"HTTP/1.1 503 Away\r\n\r\n").url) == (503, {}, b"")


def test_a_body_that_ends_with_the_connection(raw: Raw) -> None:
    assert transport("GET", raw(b"HTTP/1.1 404 No\r\nX: 1\r\n\r\nall of it").url) == (
        404,
        {"X": "1"},
        b"all of it",
    )


def test_a_chunked_body_with_trailers(raw: Raw) -> None:
    server = raw(
        b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
        b"3;x=y\r\nabc\r\n2\r\nde\r\n0\r\nX-Late: 1\r\n\r\n"
    )
    status, headers, body = transport("GET", server.url)
    assert (status, body) == (200, b"abcde")
    assert headers == {"Transfer-Encoding": "chunked"}


def test_bodies_are_neither_decoded_nor_unpacked(raw: Raw) -> None:
    packed = gzip.compress(b"plain")
    head = f"HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: {len(packed)}\r\n\r\n"
    status, headers, body = transport("GET", raw(head.encode() + packed).url)
    assert (status, body) == (200, packed)
    assert headers["Content-Encoding"] == "gzip"
    every_byte = bytes(range(256))
    head = "HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=utf-16\r\nContent-Length: 256\r\n\r\n"
    assert transport("GET", raw(head.encode() + every_byte).url)[2] == every_byte


def test_a_large_body(either: DevServer) -> None:
    either.faults("/_echo", [{"kind": "huge_body", "bytes": 8_000_000, "json": False}])
    status, _, body = transport("GET", either.url + "/_echo")
    assert (status, len(body), set(body)) == (200, 8_000_000, {ord("x")})


def test_head_has_no_body(either: DevServer) -> None:
    either.faults("/_echo", [{"kind": "status", "status": 404, "body": "12345"}])
    status, headers, body = transport("HEAD", either.url + "/_echo")
    assert (status, body) == (404, b"")
    assert headers["Content-Length"] == "5"


@pytest.mark.parametrize("status", [204, 304])
def test_statuses_that_have_no_body(status: int, raw: Raw) -> None:
    server = raw(f"HTTP/1.1 {status} Nothing\r\nX: 1\r\n\r\n".encode(), keep_alive=True)
    assert transport("GET", server.url) == (status, {"X": "1"}, b"")
    assert transport("GET", server.url) == (status, {"X": "1"}, b"")
    assert server.connections == 1


def test_the_result_is_a_plain_triple(server: DevServer) -> None:
    answer = transport(method="GET", url=server.url + "/_echo", headers=None, body=None)
    assert type(answer) is tuple
    assert [type(part) for part in answer] == [int, dict, bytes]
    assert all(type(part) is str for pair in answer[1].items() for part in pair)
    assert echoed(answer)["method"] == "GET"

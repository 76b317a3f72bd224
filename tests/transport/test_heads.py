"""Heads and chunked bodies: what exceeds the limits, what is invalid HTTP, and what is valid."""

from __future__ import annotations

import http.client
import socket
import ssl
import threading
from collections.abc import Callable

import pytest

from .raw import OK, RawServer
from .reference import failure, transport
from .tls_server import Serve

Raw = Callable[..., RawServer]

KIB = 1024
END = b"Content-Length: 2\r\n\r\nok"
CHUNKED = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"


def fields(count: int, size: int = 12) -> bytes:
    """That many header lines of that many bytes each, including line ends."""
    lines = [f"X-{which}: ".ljust(size - 2, "v") + "\r\n" for which in range(count)]
    assert all(len(line) == size for line in lines)
    return "".join(lines).encode()


def head(*parts: bytes) -> bytes:
    return b"".join([b"HTTP/1.1 200 OK\r\n", *parts, END])


GARBLED = {
    "status line of 150 KiB": b"HTTP/1.1 200 " + b"x" * (150 * KIB) + b"\r\n" + END,
    "header line of 150 KiB": head(b"X-Long: ", b"x" * (150 * KIB), b"\r\n"),
    "header name of 150 KiB": head(b"x" * (150 * KIB), b": long\r\n"),
    "4100 fields": head(fields(4100)),
    "head of 200 KiB": head(fields(100, 2 * KIB)),
    "interim heads of 200 KiB": (b"HTTP/1.1 103 Early\r\n" + fields(25, 2 * KIB) + b"\r\n") * 4 + OK,
    "garbage before the status line": b"garbage\r\n" + OK,
    "garbage that is no line": b"\x00\x01\x02" + OK,
    "a blank line before the status line": b"\r\n" + OK,
    "blank lines before the status line": b"\r\n\r\n" + OK,
    "a status of four digits": b"HTTP/1.1 2000 x\r\n" + END,
    "a status of two digits": b"HTTP/1.1 20 x\r\n" + END,
    "a status below 100": b"HTTP/1.1 099 x\r\n" + END,
    "no status": b"HTTP/1.1\r\n" + END,
    "a field without a colon": head(b"X-Odd\r\n"),
    "a zero byte in a field": head(b"X-Zero: a\0b\r\n"),
    "a zero byte in a name": head(b"X-\0Zero: a\r\n"),
    "a zero byte in the status line": b"HTTP/1.1 200 O\0K\r\n" + END,
    "a continuation at the start": head(b" folded: 1\r\n"),
    "a continuation by a tabulator": head(b"\tfolded: 1\r\n"),
    "a chunk size that is no number": CHUNKED + b"xyz\r\nabc\r\n0\r\n\r\n",
    "a chunk size with a sign": CHUNKED + b"-3\r\nabc\r\n0\r\n\r\n",
    "a chunk size with a prefix": CHUNKED + b"0x3\r\nabc\r\n0\r\n\r\n",
    "no chunk size": CHUNKED + b"\r\nabc\r\n0\r\n\r\n",
    "a chunk size beyond all numbers": CHUNKED + b"f" * 17 + b"\r\nabc\r\n0\r\n\r\n",
    "a chunk without its end": CHUNKED + b"3\r\nabcX\r\n0\r\n\r\n",
    "a chunk that is longer than it says": CHUNKED + b"3\r\nabcdef\r\n0\r\n\r\n",
    "trailers of 70 KiB": CHUNKED + b"3\r\nabc\r\n0\r\n" + fields(70, KIB) + b"\r\n",
    "a trailer of 5 KiB": CHUNKED + b"3\r\nabc\r\n0\r\nX-Late: " + b"x" * (5 * KIB) + b"\r\n\r\n",
    "a trailer of 70 KiB": CHUNKED + b"3\r\nabc\r\n0\r\nX-Late: " + b"x" * (70 * KIB) + b"\r\n\r\n",
}


def open_end(answer: bytes) -> Callable[[socket.socket, threading.Event], None]:
    """Send the response and leave the connection open, so that its end has no effect."""

    def write(connection: socket.socket, stopped: threading.Event) -> None:
        connection.sendall(answer)
        stopped.wait(20)

    return write


@pytest.mark.parametrize("case", GARBLED)
class TestIsNoHttp:
    def test_of_a_fresh_connection(self, case: str, either_raw: Raw) -> None:
        server = either_raw(GARBLED[case])
        assert type(failure("POST", server.url, {}, "{}")) is http.client.BadStatusLine
        assert len(server.requests) == 1

    def test_of_a_connection_that_stays_open(self, case: str, raw: Raw) -> None:
        error = failure("POST", raw(open_end(GARBLED[case])).url, {}, "{}")
        assert type(error) is http.client.BadStatusLine

    def test_of_a_kept_connection(self, case: str, raw: Raw) -> None:
        server = raw(OK, GARBLED[case], OK, keep_alive=True)
        assert transport("POST", server.url, {}, "{}")[0] == 200
        assert type(failure("POST", server.url, {}, "{}")) is http.client.BadStatusLine
        assert transport("POST", server.url, {}, "{}")[::2] == (200, b"ok")
        assert (len(server.requests), server.connections) == (3, 2)


class TestIsHttp:
    @pytest.mark.parametrize("count", [1, 3500])
    def test_many_fields(self, count: int, either_raw: Raw) -> None:
        server = either_raw(head(fields(count)), keep_alive=True)
        for _ in range(2):
            status, headers, body = transport("GET", server.url)
            assert (status, body) == (200, b"ok")
            assert len(headers) == count + 1
            assert headers[f"X-{count - 1}"].strip("v") == ""
        assert server.connections == 1

    def test_a_long_line(self, either_raw: Raw) -> None:
        long = "x" * (90 * KIB)
        status, headers, _ = transport("GET", either_raw(head(f"X-Long: {long}\r\n".encode())).url)
        assert (status, headers["X-Long"]) == (200, long)

    def test_a_head_of_180_kib(self, either_raw: Raw) -> None:
        server = either_raw(head(fields(90, 2 * KIB)), keep_alive=True)
        for _ in range(2):
            assert len(transport("GET", server.url)[1]) == 91
        assert server.connections == 1

    def test_every_byte_on_its_own(self, raw: Raw) -> None:
        def write(connection: socket.socket, _: threading.Event) -> None:
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            for byte in head(b"X-One: 1\r\n"):
                connection.sendall(bytes([byte]))

        assert transport("GET", raw(write).url) == (200, {"X-One": "1", "Content-Length": "2"}, b"ok")


class TestChunks:
    @pytest.mark.parametrize(
        ("written", "meant"),
        [
            (b"0\r\n\r\n", b""),
            (b"3\r\nabc\r\n0\r\n\r\n", b"abc"),
            (b"A\r\n0123456789\r\n0\r\n\r\n", b"0123456789"),
            (b"a\r\n0123456789\r\n0\r\n\r\n", b"0123456789"),
            (b"1A\r\n" + b"x" * 26 + b"\r\n1a\r\n" + b"y" * 26 + b"\r\n0\r\n\r\n", b"x" * 26 + b"y" * 26),
            (b"0003\r\nabc\r\n000\r\n\r\n", b"abc"),
            (b"3;name=value\r\nabc\r\n0;last\r\n\r\n", b"abc"),
            (b'3;name="a; b"\r\nabc\r\n0\r\n\r\n', b"abc"),
            (b"3 ; name\r\nabc\r\n0\r\n\r\n", b"abc"),
            (b"3;" + b"x" * 4000 + b"\r\nabc\r\n0\r\n\r\n", b"abc"),
            (b"3\r\nabc\r\n0\r\nX-Late: 1\r\nX-Later: 2\r\n\r\n", b"abc"),
            (b"3\r\nabc\r\n0\r\n" + fields(30, KIB) + b"\r\n", b"abc"),
            (b"3\r\nabc\r\n0\r\nX-Late: " + b"x" * 3900 + b"\r\n\r\n", b"abc"),
            (b"4\r\n\r\n\r\n\r\n2\r\n0\r\r\n0\r\n\r\n", b"\r\n\r\n0\r"),
            (b"10000\r\n" + b"x" * 65536 + b"\r\n0\r\n\r\n", b"x" * 65536),
        ],
        ids=[
            *("empty", "one", "upper", "lower", "mixed", "zeros", "extension", "quoted", "blank"),
            *("long_extension", "trailers", "many_trailers", "long_trailer", "line_ends", "large"),
        ],
    )
    @pytest.mark.parametrize("single", [False, True], ids=["whole", "single_bytes"])
    def test_ways_to_write_them(self, single: bool, written: bytes, meant: bytes, either_raw: Raw) -> None:
        def write(connection: socket.socket, stopped: threading.Event) -> None:
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            connection.sendall(CHUNKED)
            size = 1 if single and len(written) < 1000 else 997
            for start in range(0, len(written), size):
                connection.sendall(written[start : start + size])
            # The end is known without that of the connection.
            stopped.wait(20)

        assert transport("GET", either_raw(write).url) == (200, {"Transfer-Encoding": "chunked"}, meant)

    def test_each_byte_is_a_chunk(self, either_raw: Raw) -> None:
        content = bytes(range(256)) * 8
        chunks = b"".join(b"1\r\n" + bytes([byte]) + b"\r\n" for byte in content)
        server = either_raw(CHUNKED + chunks + b"0\r\n\r\n", keep_alive=True)
        for _ in range(2):
            assert transport("GET", server.url)[2] == content
        assert server.connections == 1

    @pytest.mark.parametrize(
        "field",
        [
            "Transfer-Encoding: Chunked",
            "transfer-encoding: CHUNKED",
            "TRANSFER-ENCODING:chunked",
            "Transfer-Encoding:  chunked ",
        ],
    )
    def test_ways_to_announce_them(self, field: str, either_raw: Raw) -> None:
        answer = f"HTTP/1.1 200 OK\r\n{field}\r\n\r\n3\r\nabc\r\n0\r\n\r\n".encode()
        server = either_raw(answer, keep_alive=True)
        for _ in range(2):
            assert transport("GET", server.url)[::2] == (200, b"abc")
        assert server.connections == 1

    def test_a_kept_connection_begins_anew_behind_them(self, either_raw: Raw) -> None:
        chunked = CHUNKED + b"3\r\nabc\r\n0\r\nX-Late: 1\r\n\r\n"
        server = either_raw(chunked, OK, chunked, OK, keep_alive=True)
        assert [transport("GET", server.url)[2] for _ in range(4)] == [b"abc", b"ok"] * 2
        assert server.connections == 1


class TestEndOfConnection:
    """A body that ends with its TLS connection."""

    HEAD = b"HTTP/1.1 200 OK\r\n\r\n"

    @pytest.mark.parametrize("size", [0, 1, 100_000])
    def test_that_was_announced(self, size: int, secured: Serve) -> None:
        def write(connection: socket.socket, _: threading.Event) -> None:
            assert isinstance(connection, ssl.SSLSocket)
            connection.sendall(self.HEAD + b"x" * size)
            connection.unwrap()

        assert transport("GET", secured(write).url) == (200, {}, b"x" * size)

    @pytest.mark.parametrize("size", [0, 1, 100_000])
    def test_that_just_came(self, size: int, secured: Serve) -> None:
        # As in Python's own client, which does not require close_notify either.
        server = secured(lambda connection, _: connection.sendall(self.HEAD + b"x" * size))
        assert transport("GET", server.url) == (200, {}, b"x" * size)

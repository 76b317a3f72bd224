"""Nothing of a request affects the next one: bytes buffered in TLS, and errors in OpenSSL's queue."""

from __future__ import annotations

import contextlib
import ctypes
import socket
import ssl
import threading
from typing import Any

import pytest
import trustme

from .reference import failure, transport
from .tls_server import Serve, context_of
from .tunnel import tunnel_to


def answer(body: bytes) -> bytes:
    return b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s" % (len(body), body)


def twice(connection: socket.socket, _stopped: threading.Event) -> None:
    """One unrequested response more, in a separate TLS record, but in the same write."""
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 1)
    connection.sendall(answer(b"asked for"))
    connection.sendall(answer(b"not asked for"))
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 0)
    with contextlib.suppress(OSError):
        connection.recv(1)


@pytest.mark.parametrize("proxied", [False, True], ids=["direct", "https_proxy"])
def test_an_answer_that_nobody_asked_for(
    proxied: bool, secured: Serve, monkeypatch: pytest.MonkeyPatch
) -> None:
    server = secured(twice, answer(b"asked for"))
    if proxied:
        monkeypatch.setenv("https_proxy", secured(tunnel_to(server.port)).url)
    for _ in range(2):
        assert transport("GET", server.url)[2] == b"asked for"
    assert server.connections == 2


def test_the_error_queue_of_the_thread_stays_as_it_was(serve: Serve) -> None:
    # Python's own library, and usually ours.
    library: Any = ctypes.CDLL(f"libcrypto.so.{ssl.OPENSSL_VERSION_INFO[0]}")
    library.ERR_peek_error.restype = ctypes.c_ulong
    library.ERR_clear_error()
    server = serve(context_of(trustme.CA()))
    assert isinstance(failure("GET", server.url), ssl.SSLCertVerificationError)
    assert library.ERR_peek_error() == 0

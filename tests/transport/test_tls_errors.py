"""TLS errors have the shape of Python's own, compared with its TLS library at the same server."""

from __future__ import annotations

import socket
import ssl
from collections.abc import Callable
from datetime import UTC, datetime
from pathlib import Path

import pytest
import trustme

from devserver.testing import DevServer
from tessaline._native import library_versions

from .authorities import by_tls_library, pem
from .raw import RawServer
from .reference import failure
from .tls_server import Serve, context_of

SECRET = "s3cret-value-that-must-not-show"
# A wheel has its own OpenSSL, which may be newer than that of `ssl`.
OPENSSL = tuple(map(int, library_versions()[1].split(".")[:2]))
RENAMED = {"PACKET_LENGTH_TOO_LONG": "RECORD_LAYER_FAILURE"}  # by OpenSSL 3.2
TOO_LONG = "PACKET_LENGTH_TOO_LONG" if OPENSSL < (3, 2) else "RECORD_LAYER_FAILURE"
LONG_AGO = datetime(2001, 1, 1, tzinfo=UTC)
LESS_LONG_AGO = datetime(2002, 1, 1, tzinfo=UTC)
FAR_OFF = datetime(2090, 1, 1, tzinfo=UTC)


class BluntServer(RawServer):
    """Sends its response to the first bytes, whatever they are."""

    def _read(self, connection: socket.socket) -> bytes | None:
        return connection.recv(65536) or None


def both(host: str, port: int, roots: Path) -> tuple[ssl.SSLError, ssl.SSLError]:
    """The error of a request that is full of secrets, and that of the TLS library."""
    shown = f"[{host}]" if ":" in host else host
    url = f"https://{shown}:{port}/{SECRET}?{SECRET}"
    ours = failure("POST", url, {"Authorization": f"Bearer {SECRET}"}, SECRET)
    assert isinstance(ours, ssl.SSLError)
    assert f"{shown}:{port}" in str(ours)
    if SECRET in str(ours) + repr(ours) + repr(ours.args) + repr(vars(ours)):
        raise AssertionError("the error shows what was to be sent")
    theirs = by_tls_library(host, port, roots)
    assert theirs is not None
    return ours, theirs


def check_shape(ours: ssl.SSLError, theirs: ssl.SSLError) -> None:
    assert type(ours) is type(theirs)
    assert (ours.errno, ours.strerror, ours.args) == (1, str(ours), (1, str(ours)))
    assert (ours.errno, ours.library) == (theirs.errno, theirs.library)
    assert RENAMED.get(ours.reason, ours.reason) == RENAMED.get(theirs.reason, theirs.reason)
    assert ours.library == "SSL"
    assert (ours.filename, ours.filename2) == (None, None)


def sending(*blocks: bytes) -> ssl.SSLContext:
    """A server context with a key and the certificates that it sends."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    with trustme.Blob(b"".join(blocks)).tempfile() as path:
        context.load_cert_chain(path)
    return context


def own_certificate(authority: trustme.CA) -> ssl.SSLContext:
    """Its certificate is the CA's own."""
    return sending(authority.private_key_pem.bytes(), pem(authority))


def with_root(authority: trustme.CA) -> ssl.SSLContext:
    """It also sends the CA's certificate."""
    leaf = authority.issue_cert("127.0.0.1")
    return sending(leaf.private_key_pem.bytes(), leaf.cert_chain_pems[0].bytes(), pem(authority))


@pytest.mark.parametrize(
    ("make", "host", "code"),
    [
        (lambda one: context_of(one, not_before=LONG_AGO, not_after=LESS_LONG_AGO), "127.0.0.1", 10),
        (lambda one: context_of(one, not_before=FAR_OFF, not_after=FAR_OFF), "127.0.0.1", 9),
        (lambda one: context_of(one, "elsewhere.test", "127.0.0.1"), "localhost", 62),
        (lambda one: context_of(one, "*.localhost"), "localhost", 62),
        (lambda one: context_of(one, "localhost", "127.0.0.2"), "127.0.0.1", 64),
        (lambda one: context_of(one, "127.0.0.1"), "::1", 64),
        (lambda _: own_certificate(trustme.CA()), "127.0.0.1", 18),
        (lambda _: with_root(trustme.CA()), "127.0.0.1", 19),
        (lambda _: context_of(trustme.CA()), "127.0.0.1", 20),
    ],
    ids=["expired", "not_yet", "name", "wildcard", "address", "ipv6", "self_signed", "own_root", "unknown"],
)
def test_a_certificate(
    make: Callable[[trustme.CA], ssl.SSLContext],
    host: str,
    code: int,
    serve: Serve,
    roots: Path,
    authority: trustme.CA,
) -> None:
    try:
        server = serve(make(authority), host="::1" if host == "::1" else "127.0.0.1")
    except OSError:
        pytest.skip("no IPv6 on this machine")
    ours, theirs = both(host, server.port, roots)
    check_shape(ours, theirs)
    assert isinstance(ours, ssl.SSLCertVerificationError)
    assert isinstance(theirs, ssl.SSLCertVerificationError)
    assert ours.reason == "CERTIFICATE_VERIFY_FAILED"
    assert ours.verify_code == theirs.verify_code == code
    assert ours.verify_message == theirs.verify_message
    shown = server.peer.replace("127.0.0.1", host)
    assert str(ours) == f"certificate of {shown} is not acceptable: {ours.verify_message}"
    assert not isinstance(ours, ConnectionError | TimeoutError)
    assert server.requests == []


def alert(description: int) -> bytes:
    """A fatal alert of TLS 1.2."""
    return bytes([21, 3, 3, 0, 2, 2, description])


@pytest.mark.parametrize(
    ("answer", "reason"),
    [
        (b"HTTP/1.1 400 Bad Request\r\n\r\n", "WRONG_VERSION_NUMBER"),
        (b"SSH-2.0-OpenSSH_9.2\r\n", "WRONG_VERSION_NUMBER"),
        (b"220 mail.example ready\r\n", "WRONG_VERSION_NUMBER"),
        (alert(40), "SSLV3_ALERT_HANDSHAKE_FAILURE"),
        (alert(70), "TLSV1_ALERT_PROTOCOL_VERSION"),
        (alert(80), "TLSV1_ALERT_INTERNAL_ERROR"),
        (b"\x16\x03\x03\xff\xff" + b"x" * 0xFFFF, TOO_LONG),
    ],
    ids=["http", "ssh", "smtp", "handshake", "version", "internal", "record"],
)
def test_an_answer_to_the_handshake(answer: bytes, reason: str, roots: Path) -> None:
    server = BluntServer(answer)
    try:
        ours, theirs = both("127.0.0.1", server.port, roots)
    finally:
        server.stop()
    check_shape(ours, theirs)
    assert type(ours) is ssl.SSLError
    assert ours.reason == reason
    assert str(ours).startswith(f"TLS with {server.peer} failed: ")


def test_plain_http_at_that_port(server: DevServer, roots: Path) -> None:
    ours, theirs = both("127.0.0.1", server.port, roots)
    check_shape(ours, theirs)
    assert type(ours) is ssl.SSLError


def test_a_server_that_asks_for_a_certificate(serve: Serve, roots: Path, authority: trustme.CA) -> None:
    # With TLS 1.3 the client would only notice when it has begun to send.
    context = context_of(authority, version=ssl.TLSVersion.TLSv1_2)
    context.verify_mode = ssl.CERT_REQUIRED
    context.load_verify_locations(roots)
    ours, theirs = both("127.0.0.1", serve(context).port, roots)
    check_shape(ours, theirs)


def test_a_server_that_speaks_an_old_version_alone(serve: Serve, roots: Path, authority: trustme.CA) -> None:
    context = context_of(authority)
    with pytest.warns(DeprecationWarning, match=r"TLSv1_1 is deprecated"):
        context.minimum_version = context.maximum_version = ssl.TLSVersion.TLSv1_1
    context.set_ciphers("ALL:@SECLEVEL=0")
    ours, theirs = both("127.0.0.1", serve(context).port, roots)
    check_shape(ours, theirs)
    assert ours.reason == "TLSV1_ALERT_PROTOCOL_VERSION"


def test_trusted_certificates_that_cannot_be_read(serve: Serve, roots: Path, authority: trustme.CA) -> None:
    server = serve(context_of(authority))
    roots.write_bytes(b"")
    error = failure("GET", server.url)
    assert type(error) is ssl.SSLError
    assert (error.errno, error.args, error.filename) == (1, (1, str(error)), None)
    assert server.connections == 0


def test_a_server_that_ends_the_connection_in_the_handshake(roots: Path) -> None:
    server = BluntServer(b"")
    try:
        error = failure("GET", f"https://{server.peer}/")
    finally:
        server.stop()
    assert isinstance(error, ConnectionError)
    assert server.peer in str(error)

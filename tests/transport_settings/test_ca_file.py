"""The CAs of one transport: those in its file at the time of each request, and no others."""

from __future__ import annotations

import errno
import os
import ssl
from collections.abc import Callable
from pathlib import Path

import pytest
import trustme

from tessaline import http
from tests.transport.authorities import hashed_name, pem, replace, rewrite
from tests.transport.reference import transport as default
from tests.transport.tls_server import Serve, TlsServer, context_of
from tests.transport.tunnel import tunnel_to

from .readings import ACCEPTED, REFUSED, failure, notes, outcome

SIZE = 2000


@pytest.fixture
def own(tmp_path: Path, authority: trustme.CA) -> Path:
    """A file with the CA."""
    path = tmp_path / "own.pem"
    path.write_bytes(pem(authority, SIZE))
    return path


@pytest.fixture
def foreign(tmp_path: Path, other: trustme.CA) -> Path:
    """A file with another CA."""
    path = tmp_path / "foreign.pem"
    path.write_bytes(pem(other, SIZE))
    return path


def note(path: Path) -> str:
    return f"trusted were the roots in {path} alone, which the transport was given as ca_file"


@pytest.fixture(params=["SSL_CERT_FILE", "SSL_CERT_DIR"])
def trusting(
    request: pytest.FixtureRequest, tmp_path: Path, authority: trustme.CA, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The environment trusts the CA, by a file or by a directory."""
    content = authority.cert_pem.bytes()
    if request.param == "SSL_CERT_FILE":
        place = tmp_path / "environment.pem"
        place.write_bytes(content)
    else:
        place = tmp_path / "environment"
        place.mkdir()
        (place / f"{hashed_name(content)}.0").write_bytes(content)
    monkeypatch.setenv(request.param, str(place))


@pytest.mark.usefixtures("trusting")
def test_no_others_are_trusted(keeping: TlsServer, foreign: Path) -> None:
    assert outcome(default, keeping.url) == ACCEPTED
    assert outcome(http.transport(ca_file=foreign), keeping.url) == REFUSED
    assert outcome(http.transport(), keeping.url) == ACCEPTED
    assert len(keeping.requests) == 2


def test_those_of_the_file_are_trusted(
    keeping: TlsServer, own: Path, foreign: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("SSL_CERT_FILE", str(foreign))
    transport = http.transport(ca_file=own)
    for _ in range(3):
        assert outcome(default, keeping.url) == REFUSED
        assert outcome(transport, keeping.url) == ACCEPTED
    assert len(keeping.requests) == 3


def test_transports_keep_to_their_own_connections(keeping: TlsServer, own: Path, foreign: Path) -> None:
    trusting, distrusting, same = (http.transport(ca_file=path) for path in (own, foreign, own))
    for _ in range(3):
        assert outcome(trusting, keeping.url) == ACCEPTED
        assert outcome(distrusting, keeping.url) == REFUSED
        assert outcome(same, keeping.url) == ACCEPTED
    # One that is kept, and those that were rejected.
    assert (len(keeping.requests), keeping.connections) == (6, 1 + 3)


@pytest.mark.parametrize("change", [rewrite, replace])
def test_the_file_counts_as_it_is_now(
    change: Callable[[Path, bytes], object],
    keeping: TlsServer,
    own: Path,
    authority: trustme.CA,
    other: trustme.CA,
) -> None:
    transport = http.transport(ca_file=own)
    told = []
    for lap in range(10):
        told.append(outcome(transport, keeping.url))
        change(own, pem((other, authority)[lap % 2], SIZE))
    assert told == [(ACCEPTED, REFUSED)[lap % 2] for lap in range(10)]


def test_a_path_counts_from_where_it_was_given(
    keeping: TlsServer, own: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.chdir(own.parent)
    transport = http.transport(ca_file=own.name)
    elsewhere = tmp_path / "elsewhere"
    elsewhere.mkdir()
    monkeypatch.chdir(elsewhere)
    assert outcome(transport, keeping.url) == ACCEPTED


def test_a_file_may_come_later(keeping: TlsServer, tmp_path: Path, authority: trustme.CA) -> None:
    path = tmp_path / "later.pem"
    transport = http.transport(ca_file=path)
    assert type(failure(transport, "GET", keeping.url)) is ssl.SSLError
    path.write_bytes(pem(authority))
    assert outcome(transport, keeping.url) == ACCEPTED


def test_it_is_not_read_where_no_tls_is_spoken(tmp_path: Path, raw: Serve) -> None:
    assert http.transport(ca_file=tmp_path / "missing.pem")("GET", raw().url)[0] == 200


def test_a_certificate_that_is_refused(keeping: TlsServer, foreign: Path) -> None:
    error = failure(http.transport(ca_file=foreign), "GET", keeping.url)
    assert isinstance(error, ssl.SSLCertVerificationError)
    assert keeping.peer in str(error)
    assert notes(error) == [note(foreign)]
    assert keeping.requests == []


@pytest.mark.parametrize(
    ("content", "words"),
    [
        (None, "No such file or directory"),
        (b"", "it is empty"),
        (b"no certificate\n", "there is no certificate in it"),
        (b"-----BEGIN CERTIFICATE-----\nAAAA\n", "it is damaged after certificate 0"),
    ],
)
def test_a_file_that_cannot_be_read(
    content: bytes | None, words: str, keeping: TlsServer, tmp_path: Path
) -> None:
    path = tmp_path / "spoilt.pem"
    if content is not None:
        path.write_bytes(content)
    error = failure(http.transport(ca_file=path), "GET", keeping.url)
    assert type(error) is ssl.SSLError
    assert error.strerror == f"trusted certificates cannot be read from {path}: {words}"
    assert notes(error) == [note(path)]
    assert keeping.connections == 0


def test_a_file_without_an_end(keeping: TlsServer) -> None:
    error = failure(http.transport(ca_file="/dev/zero", timeout=20), "GET", keeping.url)
    assert type(error) is ssl.SSLError
    assert error.strerror == f"trusted certificates cannot be read from /dev/zero: {os.strerror(errno.EFBIG)}"
    assert keeping.connections == 0


def test_a_folder_is_no_file(keeping: TlsServer, tmp_path: Path) -> None:
    error = failure(http.transport(ca_file=tmp_path), "GET", keeping.url)
    assert type(error) is ssl.SSLError
    assert str(tmp_path) in str(error)
    assert keeping.connections == 0


def test_a_name_that_is_no_text(
    keeping: TlsServer, foreign: Path, tmp_path: Path, authority: trustme.CA
) -> None:
    path = Path(os.fsdecode(os.fsencode(tmp_path) + b"/\xff.pem"))
    transport = http.transport(ca_file=path)
    error = failure(transport, "GET", keeping.url)
    assert type(error) is ssl.SSLError
    assert "\N{REPLACEMENT CHARACTER}.pem" in str(error)
    assert repr(transport).isascii()
    path.write_bytes(pem(authority))
    assert outcome(transport, keeping.url) == ACCEPTED


def test_it_holds_for_a_proxy_too(secured: Serve, serve: Serve, own: Path, other: trustme.CA) -> None:
    server = secured()
    transports = (
        http.transport(ca_file=own, proxy=one.url)
        for one in (serve(context_of(other), tunnel_to(server.port)), secured(tunnel_to(server.port)))
    )
    assert [outcome(transport, server.url) for transport in transports] == [REFUSED, ACCEPTED]
    assert len(server.requests) == 1

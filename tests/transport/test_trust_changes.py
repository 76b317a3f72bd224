"""If trusted certificates change while the program runs, the very next request uses the new ones."""

from __future__ import annotations

import functools
import os
import shutil
import ssl
import threading
import time
from collections.abc import Callable
from pathlib import Path

import pytest
import trustme

from tests.shared.threads import Worker, until

from .authorities import (
    ACCEPTED,
    REFUSED,
    by_tls_library,
    hashed_name,
    outcome,
    outcome_elsewhere,
    pem,
    replace,
    rewrite,
)
from .reference import failure
from .tls_server import Serve, TlsServer, context_of

Change = Callable[[Path, bytes], object]

# Larger than any certificate here, so that all of them can be padded to it.
SIZE = 2000
LAPS = 25


@pytest.fixture
def closing(serve: Serve, authority: trustme.CA) -> TlsServer:
    """A server of the CA that closes each connection after its response, and offers sessions to resume."""
    return serve(context_of(authority))


@pytest.fixture
def roots(roots: Path, authority: trustme.CA) -> Path:
    """The trusted file, which has the CA, padded to that size."""
    roots.write_bytes(pem(authority, SIZE))
    return roots


def rewrite_and_hide(path: Path, content: bytes) -> None:
    """Rewrite the file and restore the time of its last change, as an archiver does."""
    before = path.stat()
    rewrite(path, content)
    os.utime(path, ns=(before.st_atime_ns, before.st_mtime_ns))


CHANGES: list[Change] = [rewrite, replace, rewrite_and_hide, Path.write_bytes]


@pytest.mark.parametrize("change", CHANGES)
@pytest.mark.parametrize("size", [0, SIZE], ids=["another_size", "same_size"])
@pytest.mark.parametrize("kind", ["keeping", "closing"])
def test_an_authority_that_comes_and_goes(
    kind: str,
    size: int,
    change: Change,
    roots: Path,
    authority: trustme.CA,
    other: trustme.CA,
    request: pytest.FixtureRequest,
) -> None:
    server = request.getfixturevalue(kind)
    told = []
    for lap in range(LAPS):
        told.append(outcome(server.url))
        change(roots, pem((other, authority)[lap % 2], size))
    assert told == [(ACCEPTED, REFUSED)[lap % 2] for lap in range(LAPS)]
    assert len(server.requests) == told.count(ACCEPTED)


def test_unchanged_trust_keeps_the_connection(keeping: TlsServer, roots: Path) -> None:
    for _ in range(10):
        assert outcome(keeping.url) == outcome_elsewhere(keeping.url) == ACCEPTED
    assert (len(keeping.requests), keeping.connections) == (20, 1)


def test_a_file_that_is_merely_read_has_not_changed(keeping: TlsServer, roots: Path) -> None:
    for _ in range(5):
        assert outcome(keeping.url) == ACCEPTED
        assert roots.read_bytes()
    assert keeping.connections == 1


def test_two_configurations_keep_to_their_own_connections(
    keeping: TlsServer,
    roots: Path,
    authority: trustme.CA,
    tmp_path: Path,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    second = tmp_path / "second.pem"
    second.write_bytes(pem(authority))
    for _ in range(5):
        for path in (roots, second):
            monkeypatch.setenv("SSL_CERT_FILE", str(path))
            assert outcome(keeping.url) == ACCEPTED
    assert len(keeping.requests) == 10
    assert keeping.connections == 2


def test_a_configuration_that_does_not_trust_uses_no_connection_of_one_that_does(
    keeping: TlsServer, roots: Path, other: trustme.CA, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    second = tmp_path / "second.pem"
    second.write_bytes(pem(other))
    told = []
    for _ in range(5):
        for path in (roots, second):
            monkeypatch.setenv("SSL_CERT_FILE", str(path))
            told.append(outcome(keeping.url))
    assert told == [ACCEPTED, REFUSED] * 5


@pytest.mark.parametrize("change", [rewrite, replace])
@pytest.mark.parametrize("kind", ["keeping", "closing"])
def test_while_other_threads_are_busy(
    kind: str,
    change: Change,
    roots: Path,
    authority: trustme.CA,
    other: trustme.CA,
    request: pytest.FixtureRequest,
) -> None:
    url = request.getfixturevalue(kind).url
    stop = threading.Event()
    # When each request began and ended, and its result.
    seen: list[tuple[float, float, str]] = []

    def ask() -> None:
        while not stop.is_set():
            begun = time.monotonic()
            told = outcome(url)
            seen.append((begun, time.monotonic(), told))

    def asked_since(moment: float) -> bool:
        return sum(begun > moment for begun, _, _ in seen) >= 8

    workers = [Worker(ask) for _ in range(4)]
    try:
        for lap in range(6):
            wanted = (REFUSED, ACCEPTED)[lap % 2]
            change(roots, pem((other, authority)[lap % 2], SIZE))
            changed = time.monotonic()
            assert outcome(url) == wanted
            until(functools.partial(asked_since, changed))
            ended = time.monotonic()
            assert {told for begun, end, told in seen if begun > changed and end < ended} == {wanted}
    finally:
        stop.set()
        for worker in workers:
            worker.result()


DAMAGED = "it is damaged after certificate"
NO_CERTIFICATE = b"-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"


def empty(_: bytes) -> bytes:
    return b""


def cut(certificate: bytes) -> bytes:
    return certificate[:-60]


def break_code(certificate: bytes) -> bytes:
    return certificate.replace(b"\nM", b"\n!", 1)


@pytest.mark.parametrize(
    ("spoil", "words"),
    [
        (empty, "it is empty"),
        (lambda _: b"no certificate\n", "there is no certificate in it"),
        (lambda _: b"\n" * 5000, "there is no certificate in it"),
        (lambda _: b"\0" * 5000, "there is no certificate in it"),
        (cut, f"{DAMAGED} 0"),
        (break_code, f"{DAMAGED} 0"),
        (lambda whole: whole + cut(whole), f"{DAMAGED} 1"),
        (lambda _: NO_CERTIFICATE, f"{DAMAGED} 0"),
        (lambda whole: whole + NO_CERTIFICATE, f"{DAMAGED} 1"),
    ],
    ids=["empty", "words", "blank", "zeros", "cut", "no_base64", "second_cut", "other", "second_other"],
)
def test_a_file_that_is_spoilt(
    spoil: Callable[[bytes], bytes], words: str, keeping: TlsServer, roots: Path, authority: trustme.CA
) -> None:
    for _ in range(2):
        assert outcome(keeping.url) == ACCEPTED
        sent = len(keeping.requests)
        rewrite(roots, spoil(pem(authority)))
        assert type(by_tls_library("127.0.0.1", keeping.port, roots)) is ssl.SSLError
        check_unreadable(keeping, roots, words)
        assert len(keeping.requests) == sent
        rewrite(roots, pem(authority))


def put_nothing(path: Path) -> None:
    pass


def make_loop(path: Path) -> None:
    path.symlink_to(path)


@pytest.mark.parametrize(
    ("put", "words"),
    [
        (put_nothing, "No such file or directory"),
        (Path.mkdir, "Is a directory"),
        (make_loop, "Too many levels of symbolic links"),
    ],
    ids=["nothing", "directory", "loop"],
)
def test_something_else_in_the_place_of_the_file(
    put: Callable[[Path], object], words: str, keeping: TlsServer, roots: Path, authority: trustme.CA
) -> None:
    assert outcome(keeping.url) == ACCEPTED
    roots.unlink()
    put(roots)
    check_unreadable(keeping, roots, words)
    assert len(keeping.requests) == 1
    replace_whatever_it_is(roots, pem(authority))
    assert outcome(keeping.url) == ACCEPTED


def replace_whatever_it_is(path: Path, content: bytes) -> None:
    if path.is_symlink():
        path.unlink()
    elif path.is_dir():
        path.rmdir()
    path.write_bytes(content)


def check_unreadable(server: TlsServer, roots: Path, words: str) -> None:
    for _ in range(2):
        error = failure("GET", server.url)
        assert type(error) is ssl.SSLError
        assert str(error) == f"trusted certificates cannot be read from {roots}: {words}"


@pytest.fixture(scope="module")
def name(authority: trustme.CA) -> str:
    """The name under which a directory has the CA's certificate."""
    return f"{hashed_name(pem(authority))}.0"


class TestDirectory:
    @pytest.fixture
    def folder(
        self, authority: trustme.CA, other: trustme.CA, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
    ) -> Path:
        """A hashed directory without the CA. The file beside it is another one's."""
        path = tmp_path / "hashed"
        path.mkdir()
        (tmp_path / "other.pem").write_bytes(pem(other))
        monkeypatch.setenv("SSL_CERT_FILE", str(tmp_path / "other.pem"))
        monkeypatch.setenv("SSL_CERT_DIR", str(path))
        return path

    @pytest.mark.parametrize("kind", ["keeping", "closing"])
    def test_a_certificate_that_comes_and_goes(
        self, kind: str, folder: Path, name: str, authority: trustme.CA, request: pytest.FixtureRequest
    ) -> None:
        url = request.getfixturevalue(kind).url
        for _ in range(10):
            assert outcome(url) == REFUSED
            (folder / name).write_bytes(pem(authority))
            assert outcome(url) == ACCEPTED
            (folder / name).unlink()

    @pytest.mark.parametrize("change", CHANGES)
    @pytest.mark.parametrize("kind", ["keeping", "closing"])
    def test_a_certificate_that_another_one_replaces(
        self,
        kind: str,
        change: Change,
        folder: Path,
        name: str,
        authority: trustme.CA,
        other: trustme.CA,
        request: pytest.FixtureRequest,
    ) -> None:
        url = request.getfixturevalue(kind).url
        (folder / name).write_bytes(pem(authority, SIZE))
        told = []
        for lap in range(LAPS):
            told.append(outcome(url))
            change(folder / name, pem((other, authority)[lap % 2], SIZE))
        assert told == [(ACCEPTED, REFUSED)[lap % 2] for lap in range(LAPS)]

    def test_a_certificate_behind_a_link(
        self, keeping: TlsServer, folder: Path, name: str, authority: trustme.CA, other: trustme.CA
    ) -> None:
        target = folder.parent / "target.pem"
        target.write_bytes(pem(authority, SIZE))
        (folder / name).symlink_to(target)
        for _ in range(10):
            assert outcome(keeping.url) == ACCEPTED
            rewrite(target, pem(other, SIZE))
            assert outcome(keeping.url) == REFUSED
            rewrite(target, pem(authority, SIZE))

    def test_the_whole_directory(
        self, keeping: TlsServer, folder: Path, name: str, authority: trustme.CA
    ) -> None:
        (folder / name).write_bytes(pem(authority))
        assert outcome(keeping.url) == ACCEPTED
        folder.rename(folder.with_name("away"))
        assert outcome(keeping.url) == REFUSED
        folder.mkdir()
        assert outcome(keeping.url) == REFUSED
        shutil.copy(folder.with_name("away") / name, folder / name)
        assert outcome(keeping.url) == ACCEPTED

    def test_an_unchanged_directory_keeps_the_connection(
        self, keeping: TlsServer, folder: Path, name: str, authority: trustme.CA
    ) -> None:
        (folder / name).write_bytes(pem(authority))

        def settled() -> bool:
            before = keeping.connections
            return (outcome(keeping.url), keeping.connections) == (ACCEPTED, before)

        # A directory that has just changed may change again within the resolution of its time stamp.
        until(settled, "the connection is used again")
        before = keeping.connections
        for _ in range(10):
            assert outcome(keeping.url) == outcome_elsewhere(keeping.url) == ACCEPTED
        assert keeping.connections == before

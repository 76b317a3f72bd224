"""Formats of a file of trusted certificates, compared with Python's TLS library."""

from __future__ import annotations

import shutil
import ssl
import subprocess
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
import trustme

from .authorities import ACCEPTED, REFUSED, by_tls_library, outcome, pem
from .tls_server import Serve, TlsServer, context_of, serving

UNRELATED = 300


@pytest.fixture(scope="module")
def servers() -> Iterator[Serve]:
    with serving() as start:
        yield start


@pytest.fixture(scope="module")
def server(servers: Serve, authority: trustme.CA) -> TlsServer:
    return servers(context_of(authority))


@pytest.fixture(scope="module")
def others() -> list[bytes]:
    return [pem(trustme.CA(organization_name=f"unrelated {which}")) for which in range(UNRELATED)]


def check(server: TlsServer, roots: Path, content: bytes, wanted: str) -> None:
    roots.write_bytes(content)
    error = by_tls_library("127.0.0.1", server.port, roots)
    assert type(error) is {ACCEPTED: type(None), REFUSED: ssl.SSLCertVerificationError}[wanted]
    assert outcome(server.url) == wanted


def trusted_form(certificate: bytes, *options: str) -> bytes:
    """The certificate with a list of its trusted purposes."""
    openssl = shutil.which("openssl")
    if openssl is None:
        pytest.skip("needs the openssl program to write such a list")
    command = [openssl, "x509", "-trustout", *options]
    done = subprocess.run(command, input=certificate, check=True, capture_output=True, timeout=30)
    assert b"-----BEGIN TRUSTED CERTIFICATE-----" in done.stdout
    return done.stdout


@pytest.mark.parametrize(
    "write",
    [
        lambda one: one.replace(b"\n", b"\r\n"),
        lambda one: one.rstrip(b"\n"),
        lambda one: b"# the authority\nSubject: CN=\xc3\xa9\n\n" + one + b"# its end\n",
        lambda one: b"\xef\xbb\xbf# what an editor puts first\n" + one,
        lambda one: b"\n" * 3000 + one,
        lambda one: b"a long line without an end" * 5000 + b"\n" + one,
        lambda one: one.replace(b" CERTIFICATE", b" X509 CERTIFICATE"),
        lambda one: b"".join(line + b" \t\n" for line in one.splitlines()),
        lambda one: one + one,
    ],
    ids=["crlf", "no_end", "comments", "mark", "blank_lines", "long_line", "old_name", "blanks", "twice"],
)
def test_ways_to_write_it(
    write: Callable[[bytes], bytes], server: TlsServer, roots: Path, authority: trustme.CA
) -> None:
    check(server, roots, write(pem(authority)), ACCEPTED)


def test_comments_between_certificates(
    server: TlsServer, roots: Path, authority: trustme.CA, others: list[bytes]
) -> None:
    blocks = [others[0], b"=====\nanother authority\n", pem(authority), b"\n-- \n", others[1]]
    check(server, roots, b"".join(blocks), ACCEPTED)


@pytest.mark.parametrize("place", [0, 150, UNRELATED])
def test_one_among_hundreds(
    place: int, server: TlsServer, roots: Path, authority: trustme.CA, others: list[bytes]
) -> None:
    check(server, roots, b"".join([*others[:place], pem(authority), *others[place:]]), ACCEPTED)


def test_hundreds_and_none_of_them(server: TlsServer, roots: Path, others: list[bytes]) -> None:
    check(server, roots, b"".join(others), REFUSED)


@pytest.mark.parametrize(
    ("options", "wanted"),
    [
        ([], ACCEPTED),
        (["-setalias", "an alias"], ACCEPTED),
        (["-addtrust", "serverAuth"], ACCEPTED),
        (["-addtrust", "clientAuth"], REFUSED),
        (["-addreject", "serverAuth"], REFUSED),
    ],
    ids=["as_it_is", "alias", "for_servers", "for_clients", "not_for_servers"],
)
def test_a_list_of_what_it_is_trusted_for(
    options: list[str], wanted: str, server: TlsServer, roots: Path, authority: trustme.CA
) -> None:
    check(server, roots, trusted_form(pem(authority), *options), wanted)


def test_a_plain_certificate_beside_one_with_a_list(
    server: TlsServer, roots: Path, authority: trustme.CA, others: list[bytes]
) -> None:
    check(server, roots, trusted_form(others[0]) + pem(authority), ACCEPTED)
    check(server, roots, others[0] + trusted_form(pem(authority)), ACCEPTED)


def test_the_servers_own_certificate(servers: Serve, roots: Path, authority: trustme.CA) -> None:
    certificate = authority.issue_cert("127.0.0.1")
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    certificate.configure_cert(context)
    one = servers(context)
    check(one, roots, certificate.cert_chain_pems[0].bytes(), ACCEPTED)
    check(one, roots, authority.issue_cert("127.0.0.1").cert_chain_pems[0].bytes(), REFUSED)


def test_an_authority_below_the_root(servers: Serve, roots: Path, authority: trustme.CA) -> None:
    below = authority.create_child_ca()
    one = servers(context_of(below))
    check(one, roots, pem(below), ACCEPTED)
    check(one, roots, pem(authority), ACCEPTED)
    check(one, roots, pem(authority.create_child_ca()), REFUSED)


def test_a_private_key_beside_the_certificate(server: TlsServer, roots: Path, authority: trustme.CA) -> None:
    check(server, roots, authority.private_key_pem.bytes() + pem(authority), ACCEPTED)

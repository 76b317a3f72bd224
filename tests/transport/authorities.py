"""Authorities in the places where trust is looked for, and what comes of a request then."""

from __future__ import annotations

import os
import shutil
import socket
import ssl
import subprocess
from pathlib import Path

import pytest
import trustme

from tests.shared.threads import Worker

from .raw import DEADLINE
from .reference import transport

ACCEPTED = "accepted"
REFUSED = "refused"


def outcome(url: str) -> str:
    """Whether the certificate at that URL is accepted now; every other failure is raised."""
    try:
        assert transport("GET", url)[0] == 200
    except ssl.SSLCertVerificationError:
        return REFUSED
    return ACCEPTED


def outcome_elsewhere(url: str) -> str:
    """The same from a thread of its own."""
    told: str = Worker(outcome, url).result()
    return told


def by_tls_library(host: str, port: int, roots: Path) -> ssl.SSLError | None:
    """What the host's TLS library says to a server there, with what is trusted in that file."""
    try:
        context = ssl.create_default_context(cafile=str(roots))
        with (
            socket.create_connection((host, port), timeout=DEADLINE) as connection,
            context.wrap_socket(connection, server_hostname=host) as secured,
        ):
            secured.sendall(b"GET / HTTP/1.1\r\n\r\n")
            secured.recv(1)
    except ssl.SSLError as error:
        return error
    return None


def pem(authority: trustme.CA, size: int = 0) -> bytes:
    """The authority's certificate, followed by as many line ends as make it `size` bytes long."""
    return authority.cert_pem.bytes().ljust(size, b"\n")


def replace(path: Path, content: bytes) -> None:
    """Put a new file in the place of the old one."""
    new = path.with_suffix(".new")
    new.write_bytes(content)
    os.replace(new, path)


def rewrite(path: Path, content: bytes) -> None:
    """Write into the file as it is, in one go where it keeps its size."""
    with path.open("r+b") as file:
        file.write(content)
        file.truncate()


def hashed_name(certificate: bytes) -> str:
    """The name by which a certificate is found in a directory, but for the number behind it."""
    openssl = shutil.which("openssl")
    if openssl is None:
        pytest.skip("needs the openssl program to name the certificate")
    command = [openssl, "x509", "-noout", "-hash"]
    done = subprocess.run(command, input=certificate, check=True, capture_output=True, timeout=30)
    return done.stdout.decode().strip()

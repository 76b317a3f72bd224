"""CAs in the locations of trusted certificates, and the effect on requests."""

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
    """Whether the certificate at that URL is accepted now; other failures are raised."""
    try:
        assert transport("GET", url)[0] == 200
    except ssl.SSLCertVerificationError:
        return REFUSED
    return ACCEPTED


def outcome_elsewhere(url: str) -> str:
    """The same on a separate thread."""
    told: str = Worker(outcome, url).result()
    return told


def by_tls_library(host: str, port: int, roots: Path) -> ssl.SSLError | None:
    """The result of Python's TLS library for that server, trusting that file."""
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
    """The CA's certificate, padded with line ends to `size` bytes."""
    return authority.cert_pem.bytes().ljust(size, b"\n")


def replace(path: Path, content: bytes) -> None:
    """Replace the file by a new one."""
    new = path.with_suffix(".new")
    new.write_bytes(content)
    os.replace(new, path)


def rewrite(path: Path, content: bytes) -> None:
    """Overwrite the file in place, by one write if it keeps its size."""
    with path.open("r+b") as file:
        file.write(content)
        file.truncate()


def hashed_name(certificate: bytes) -> str:
    """The name under which a directory has the certificate, without the number after it."""
    openssl = shutil.which("openssl")
    if openssl is None:
        pytest.skip("needs the openssl program to name the certificate")
    command = [openssl, "x509", "-noout", "-hash"]
    done = subprocess.run(command, input=certificate, check=True, capture_output=True, timeout=30)
    return done.stdout.decode().strip()

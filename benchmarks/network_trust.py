"""A certificate for this machine that is trusted in addition to the system's roots."""

from __future__ import annotations

import os
import ssl
import tempfile
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

import trustme


@dataclass(frozen=True)
class Trust:
    """Certificate (P-256) and key of the server, and the environment that makes every client trust it."""

    chain: Path
    key: Path
    environment: Mapping[str, str]
    roots: int  # certificates in the file, including that of the benchmarks

    @property
    def note(self) -> str:
        beside = " and a directory" if "SSL_CERT_DIR" in self.environment else ""
        return f"trusting a file of {self.roots} roots{beside}"


@contextmanager
def trusted_beside_the_system() -> Iterator[Trust]:
    places = ssl.get_default_verify_paths()
    system = Path(places.cafile).read_bytes() if places.cafile else b""
    authority = trustme.CA()
    certificate = authority.issue_cert("127.0.0.1")
    with tempfile.TemporaryDirectory() as folder:
        chain, key, roots = (Path(folder) / name for name in ("chain.pem", "key.pem", "roots.pem"))
        certificate.private_key_and_cert_chain_pem.write_to_path(str(chain))
        certificate.private_key_pem.write_to_path(str(key))
        roots.write_bytes(system.rstrip() + b"\n" + authority.cert_pem.bytes())
        environment = {"SSL_CERT_FILE": str(roots)}
        if places.capath:
            environment["SSL_CERT_DIR"] = places.capath
        yield Trust(chain, key, environment, roots.read_bytes().count(b"-----BEGIN CERTIFICATE-----"))


@contextmanager
def trusted_here(trust: Trust) -> Iterator[None]:
    """Makes this process trust it, as an operator would: through the environment."""
    before = {name: os.environ.get(name) for name in trust.environment}
    os.environ.update(trust.environment)
    try:
        yield
    finally:
        for name, value in before.items():
            if value is None:
                del os.environ[name]
            else:
                os.environ[name] = value

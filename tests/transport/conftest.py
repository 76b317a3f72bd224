"""One server per scheme for the whole folder, and servers with scripted responses."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
import trustme

from tests.shared.servers import (
    either,
    http_process,
    https_process,
    https_server,
    server,
    trusted,
    unused_port,
)

from .authorities import pem
from .proxies import SetEnv
from .raw import RawServer
from .tls_server import Serve, TlsServer, context_of, serving

# Fixtures.
__all__ = ["either", "http_process", "https_process", "https_server", "server", "trusted", "unused_port"]


@pytest.fixture
def raw() -> Iterator[Callable[..., RawServer]]:
    """Starts servers whose every response is given byte by byte."""
    started: list[RawServer] = []

    def start(*answers: object, **options: object) -> RawServer:
        started.append(RawServer(*answers, **options))  # type: ignore[arg-type]
        return started[-1]

    yield start
    for one in started:
        one.stop()


@pytest.fixture(scope="module")
def authority() -> trustme.CA:
    return trustme.CA(organization_name="trusted")


@pytest.fixture
def roots(authority: trustme.CA, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """The trusted file, which has the CA."""
    path = tmp_path / "roots.pem"
    path.write_bytes(pem(authority))
    monkeypatch.setenv("SSL_CERT_FILE", str(path))
    monkeypatch.delenv("SSL_CERT_DIR", raising=False)
    return path


@pytest.fixture
def serve() -> Iterator[Serve]:
    """Starts servers like those of `raw` behind TLS, given a context first."""
    with serving() as start:
        yield start


@pytest.fixture(scope="module")
def other() -> trustme.CA:
    """A CA that is not trusted at first."""
    return trustme.CA(organization_name="never asked for")


@pytest.fixture
def keeping(serve: Serve, authority: trustme.CA) -> TlsServer:
    """A server of the CA that keeps its connections open."""
    return serve(context_of(authority), keep_alive=True)


@pytest.fixture
def secured(serve: Serve, roots: Path, authority: trustme.CA) -> Serve:
    """Starts servers like those of `raw` behind TLS, with certificates that are trusted."""
    return lambda *answers, **options: serve(context_of(authority), *answers, **options)


@pytest.fixture(params=["http", "https"])
def either_raw(request: pytest.FixtureRequest) -> Callable[..., RawServer]:
    """Starts servers of each scheme in turn."""
    name = {"http": "raw", "https": "secured"}[request.param]
    start: Callable[..., RawServer] = request.getfixturevalue(name)
    return start


@pytest.fixture
def setenv(monkeypatch: pytest.MonkeyPatch) -> SetEnv:
    return monkeypatch.setenv


@pytest.fixture(autouse=True)
def no_proxy(monkeypatch: pytest.MonkeyPatch) -> None:
    for name in ("http_proxy", "https_proxy", "all_proxy", "no_proxy"):
        monkeypatch.delenv(name, raising=False)
        monkeypatch.delenv(name.upper(), raising=False)

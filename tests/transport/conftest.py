"""One server per scheme for the whole folder, and servers that answer what a test dictates."""

from __future__ import annotations

import socket
import sys
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from devserver.testing import DevServer

from .raw import RawServer


@pytest.fixture(scope="package")
def http_process() -> Iterator[DevServer]:
    with DevServer() as server:
        yield server
        assert server.stderr == ""


@pytest.fixture(scope="package")
def https_process() -> Iterator[DevServer]:
    with DevServer(tls=True) as server:
        yield server
        assert server.stderr == ""


@pytest.fixture
def server(http_process: DevServer) -> DevServer:
    http_process.reset()
    return http_process


@pytest.fixture
def https_server(https_process: DevServer) -> DevServer:
    https_process.reset()
    return https_process


@pytest.fixture
def trusted(https_server: DevServer, monkeypatch: pytest.MonkeyPatch) -> DevServer:
    """The HTTPS server, its authority trusted."""
    assert https_server.ca_file is not None
    monkeypatch.setenv("SSL_CERT_FILE", https_server.ca_file)
    return https_server


@pytest.fixture(params=["http", "https"])
def either(request: pytest.FixtureRequest) -> DevServer:
    """The server of each scheme in turn."""
    chosen = request.getfixturevalue({"http": "server", "https": "trusted"}[request.param])
    assert isinstance(chosen, DevServer)
    return chosen


@pytest.fixture
def raw() -> Iterator[Callable[..., RawServer]]:
    """Starts servers whose every answer is given byte by byte."""
    started: list[RawServer] = []

    def start(*answers: object, **options: object) -> RawServer:
        started.append(RawServer(*answers, **options))  # type: ignore[arg-type]
        return started[-1]

    yield start
    for one in started:
        one.stop()


@pytest.fixture
def unused_port() -> Iterator[int]:
    """A port at which every connection is refused: it is taken and nobody listens."""
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        yield taken.getsockname()[1]


@pytest.fixture(autouse=True)
def no_proxy(monkeypatch: pytest.MonkeyPatch) -> None:
    for name in ("http_proxy", "https_proxy", "all_proxy", "no_proxy"):
        monkeypatch.delenv(name, raising=False)
        monkeypatch.delenv(name.upper(), raising=False)

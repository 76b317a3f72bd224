"""Fixtures for the conftest of a folder: one development server per kind, reset before each test."""

from __future__ import annotations

import socket
from collections.abc import Iterator
from typing import Any

import pytest

from devserver.testing import DevServer


def serve(**options: Any) -> Iterator[DevServer]:
    """The body of a fixture: a server that must have written no errors."""
    with DevServer(**options) as server:
        yield server
        assert server.stderr == ""


def fresh(server: DevServer) -> DevServer:
    server.reset()
    return server


@pytest.fixture(scope="package")
def http_process() -> Iterator[DevServer]:
    yield from serve()


@pytest.fixture(scope="package")
def https_process() -> Iterator[DevServer]:
    yield from serve(tls=True)


@pytest.fixture
def server(http_process: DevServer) -> DevServer:
    return fresh(http_process)


@pytest.fixture
def https_server(https_process: DevServer) -> DevServer:
    return fresh(https_process)


@pytest.fixture
def trusted(https_server: DevServer, monkeypatch: pytest.MonkeyPatch) -> DevServer:
    """The HTTPS server, with its CA trusted."""
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
def unused_port() -> Iterator[int]:
    """A port at which every connection is refused: it is bound, but nothing listens."""
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        yield taken.getsockname()[1]

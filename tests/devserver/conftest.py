"""One server per scheme for the whole run, reset before each test."""

import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from devserver_client import Client

from devserver.testing import DevServer


@pytest.fixture(scope="session")
def plain_process() -> Iterator[DevServer]:
    with DevServer() as server:
        yield server
        assert server.stderr == ""


@pytest.fixture(scope="session")
def tls_process() -> Iterator[DevServer]:
    with DevServer(tls=True) as server:
        yield server
        assert server.stderr == ""


@pytest.fixture
def server(plain_process: DevServer) -> DevServer:
    plain_process.reset()
    return plain_process


@pytest.fixture
def tls_server(tls_process: DevServer) -> DevServer:
    tls_process.reset()
    return tls_process


@pytest.fixture
def client(server: DevServer) -> Iterator[Client]:
    with Client(server) as client:
        yield client


@pytest.fixture(params=["http", "https"])
def either(request: pytest.FixtureRequest) -> DevServer:
    fixture = {"http": "server", "https": "tls_server"}[request.param]
    server = request.getfixturevalue(fixture)
    assert isinstance(server, DevServer)
    return server

"""One server per scheme for the whole run, reset before each test."""

from collections.abc import Iterator

import pytest
from devserver_client import Client

from devserver.testing import DevServer
from tests.shared.servers import http_process, https_process, https_server, server

# Fixtures.
__all__ = ["http_process", "https_process", "https_server", "server"]


@pytest.fixture
def client(server: DevServer) -> Iterator[Client]:
    with Client(server) as client:
        yield client


@pytest.fixture(params=["http", "https"])
def either(request: pytest.FixtureRequest) -> DevServer:
    fixture = {"http": "server", "https": "https_server"}[request.param]
    server = request.getfixturevalue(fixture)
    assert isinstance(server, DevServer)
    return server

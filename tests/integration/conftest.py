"""One server per kind for the whole folder, reset before each test; nothing may be left behind."""

from __future__ import annotations

import socket
import sys
import threading
import time
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from devserver.testing import DevServer
from tests.sanitized import patience

from .support import Harness

THREAD_GRACE = patience(10.0)


def _serve(**options: Any) -> Iterator[DevServer]:
    with DevServer(**options) as server:
        yield server
        assert server.stderr == ""


@pytest.fixture(scope="package")
def http_process() -> Iterator[DevServer]:
    yield from _serve()


@pytest.fixture(scope="package")
def https_process() -> Iterator[DevServer]:
    yield from _serve(tls=True)


@pytest.fixture(scope="package")
def misnamed_process() -> Iterator[DevServer]:
    yield from _serve(tls=True, tls_names=["elsewhere.test"])


@pytest.fixture(scope="package")
def expired_process() -> Iterator[DevServer]:
    yield from _serve(tls=True, options=["--tls-expired"])


def _fresh(server: DevServer) -> DevServer:
    server.reset()
    return server


@pytest.fixture
def server(http_process: DevServer) -> DevServer:
    return _fresh(http_process)


@pytest.fixture
def https_server(https_process: DevServer) -> DevServer:
    return _fresh(https_process)


@pytest.fixture
def misnamed_server(misnamed_process: DevServer) -> DevServer:
    return _fresh(misnamed_process)


@pytest.fixture
def expired_server(expired_process: DevServer) -> DevServer:
    return _fresh(expired_process)


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


@pytest.fixture(autouse=True)
def no_thread_left() -> Iterator[None]:
    before = set(threading.enumerate())
    yield
    limit = time.monotonic() + THREAD_GRACE
    while left := [thread for thread in threading.enumerate() if thread not in before]:
        left[0].join(0.05)
        if time.monotonic() > limit:
            pytest.fail(f"threads left behind: {left!r}")


@pytest.fixture
def harness(no_thread_left: None, caplog: pytest.LogCaptureFixture) -> Iterator[Callable[..., Harness]]:
    """Makes managers with their surroundings; closes them, and looks for secrets in the log and in `repr`."""
    caplog.set_level(1)
    made: list[Harness] = []

    def make(server: DevServer | str, **options: Any) -> Harness:
        made.append(Harness(server if isinstance(server, str) else server.url, **options))
        return made[-1]

    yield make
    for one in made:
        written = [caplog.text, *(repr(vars(record)) for record in caplog.records)]
        one.assert_nothing_secret_in("".join(written) + repr(one.manager) + str(one.manager))
        one.manager.close()


@pytest.fixture
def unused_port() -> Iterator[int]:
    """A port at which every connection is refused: it is taken and nobody listens."""
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        yield taken.getsockname()[1]

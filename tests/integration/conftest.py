"""One server per kind for the whole folder, reset before each test; nothing may be left behind."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable, Iterator
from typing import Any

import pytest

from devserver.testing import DevServer
from tests.sanitized import patience
from tests.shared.servers import (
    either,
    fresh,
    http_process,
    https_process,
    https_server,
    serve,
    server,
    trusted,
    unused_port,
)

from .support import Harness

# Fixtures.
__all__ = ["either", "http_process", "https_process", "https_server", "server", "trusted", "unused_port"]

THREAD_GRACE = patience(10.0)


@pytest.fixture(scope="package")
def misnamed_process() -> Iterator[DevServer]:
    yield from serve(tls=True, tls_names=["elsewhere.test"])


@pytest.fixture(scope="package")
def expired_process() -> Iterator[DevServer]:
    yield from serve(tls=True, options=["--tls-expired"])


@pytest.fixture
def misnamed_server(misnamed_process: DevServer) -> DevServer:
    return fresh(misnamed_process)


@pytest.fixture
def expired_server(expired_process: DevServer) -> DevServer:
    return fresh(expired_process)


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

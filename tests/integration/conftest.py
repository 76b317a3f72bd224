"""One server per kind for the whole folder, reset before each test; nothing may be left behind."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from typing import Any

import pytest

from devserver.testing import DevServer
from tests.shared.servers import (
    either,
    http_process,
    https_process,
    https_server,
    server,
    trusted,
    unused_port,
)
from tests.shared.threads import none_left

from .support import Harness

# Fixtures.
__all__ = ["either", "http_process", "https_process", "https_server", "server", "trusted", "unused_port"]


@pytest.fixture(autouse=True)
def no_thread_left() -> Iterator[None]:
    yield from none_left()


@pytest.fixture
def harness(no_thread_left: None, caplog: pytest.LogCaptureFixture) -> Iterator[Callable[..., Harness]]:
    """Makes managers with their environment; closes them, and searches log and `repr` for secrets."""
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

"""One server per scheme for the whole folder, and servers that answer what a test dictates."""

from __future__ import annotations

from collections.abc import Callable, Iterator

import pytest

from tests.shared.servers import (
    either,
    http_process,
    https_process,
    https_server,
    server,
    trusted,
    unused_port,
)

from .raw import RawServer

# Fixtures.
__all__ = ["either", "http_process", "https_process", "https_server", "server", "trusted", "unused_port"]


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


@pytest.fixture(autouse=True)
def no_proxy(monkeypatch: pytest.MonkeyPatch) -> None:
    for name in ("http_proxy", "https_proxy", "all_proxy", "no_proxy"):
        monkeypatch.delenv(name, raising=False)
        monkeypatch.delenv(name.upper(), raising=False)

"""No thread may be left, and no exception may be raised where it is lost."""

from __future__ import annotations

import sys
import threading
from collections.abc import Callable, Iterator
from typing import Any

import pytest

import canary
from tessaline.auth import AuthManager
from tessaline.testing import KEY, URL, FakeService
from tests.shared.threads import none_left

from .support import LIBRARIES


@pytest.fixture(params=LIBRARIES)
def library(request: pytest.FixtureRequest) -> str:
    return str(request.param)


@pytest.fixture(autouse=True)
def no_thread_left() -> Iterator[None]:
    # The threads of trio's cache and of a loop's default pool belong to these libraries.
    yield from none_left("Trio thread", "asyncio_")


@pytest.fixture(autouse=True)
def escaped(monkeypatch: pytest.MonkeyPatch) -> Iterator[list[Any]]:
    """Exceptions that ended threads; a test that expects some removes them."""
    seen: list[Any] = []
    monkeypatch.setattr(threading, "excepthook", lambda given: seen.append(given.exc_value))
    monkeypatch.setattr(sys, "unraisablehook", lambda given: seen.append(given.exc_value))
    yield seen
    assert seen == []


@pytest.fixture
def service() -> FakeService:
    return FakeService()


@pytest.fixture
def make_manager(service: FakeService) -> Iterator[Callable[..., AuthManager]]:
    """Managers that have logged in."""
    made: list[AuthManager] = []

    def make(kind: type[AuthManager] = AuthManager, **options: Any) -> AuthManager:
        made.append(kind(KEY, URL, _transport=service, **options))
        made[-1].authenticate()
        canary.plant("token", made[-1].get_token())
        return made[-1]

    yield make
    for manager in made:
        manager.close()

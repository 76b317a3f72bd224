"""Every manager is closed and every thread accounted for at the end of each test."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from typing import Any

import pytest

from tests.shared.clocks import HandClock
from tests.shared.threads import none_left

from .helpers import managers as manager_helpers
from .helpers.server import FakeServer


@pytest.fixture(autouse=True)
def no_thread_left() -> Iterator[None]:
    """Fail a test that leaves a thread behind."""
    manager_helpers.mark_baseline()
    yield from none_left()


@pytest.fixture
def clock() -> HandClock:
    return HandClock(1000.0)


@pytest.fixture
def server() -> Iterator[FakeServer]:
    fake = FakeServer()
    yield fake
    fake.release_all()


@pytest.fixture
def make_manager(no_thread_left: None, server: FakeServer, clock: HandClock) -> Iterator[Callable[..., Any]]:
    """Builds managers over the fake server and the stepped clock, and closes them at the end."""
    made: list[Any] = []

    def make(*args: Any, **options: Any) -> Any:
        options.setdefault("server", server)
        options.setdefault("clock", clock)
        made.append(manager_helpers.build(*args, **options))
        return made[-1]

    yield make
    server.release_all()
    clock.error = None
    for manager in made:
        # The class's own method: a test may have replaced the instance's.
        type(manager).close(manager)


@pytest.fixture
def manager(make_manager: Callable[..., Any]) -> Any:
    """A manager that has not logged in."""
    return make_manager()


@pytest.fixture
def logged_in(manager: Any) -> Any:
    """A manager that has logged in; its refresh thread is alive."""
    manager.authenticate()
    return manager

"""At the end of each test every manager is closed and every thread has ended."""

from __future__ import annotations

import gc
import sys
import time
from collections.abc import Callable, Iterator
from typing import Any

import pytest

from tessaline import auth
from tests.shared.clocks import HandClock

from .support import endings
from .support.managers import build
from .support.service import Service
from .support.threads import ThreadCensus

census, nothing_escapes = endings.census, endings.nothing_escapes


@pytest.fixture
def service() -> Iterator[Service]:
    played = Service()
    yield played
    played.let_go()


@pytest.fixture
def clock() -> HandClock:
    return HandClock()


@pytest.fixture
def make_manager(
    nothing_escapes: None, census: ThreadCensus, service: Service, clock: HandClock
) -> Iterator[Callable[..., Any]]:
    made: list[Any] = []

    def make(**options: Any) -> Any:
        made.append(build(options.pop("service", service), options.pop("clock", clock), **options))
        return made[-1]

    yield make
    service.let_go()
    clock.error = None
    for manager in made:
        auth.AuthManager.close(manager)


@pytest.fixture
def manager(make_manager: Callable[..., Any]) -> Any:
    return make_manager()


@pytest.fixture
def logged_in(manager: Any) -> Any:
    """A manager that has logged in; its refresh thread is alive."""
    manager.authenticate()
    return manager


@pytest.fixture
def eager_switching() -> Iterator[None]:
    """Switches threads a hundred times as often, so that more interleavings occur."""
    usual = sys.getswitchinterval()
    sys.setswitchinterval(5e-5)
    yield
    sys.setswitchinterval(usual)


@pytest.fixture
def no_collection() -> Iterator[None]:
    """Disables the garbage collector, which would disturb counts of objects and timings."""
    gc.collect()
    gc.disable()
    yield
    gc.enable()


@pytest.fixture
def stopwatch() -> Callable[[], float]:
    """Seconds since the fixture or the stopwatch was last read."""
    last = time.monotonic()

    def lap() -> float:
        nonlocal last
        before, last = last, time.monotonic()
        return last - before

    return lap

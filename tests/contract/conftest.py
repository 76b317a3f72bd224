"""Every manager is closed and every thread gone at the end of each test."""

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
    """A manager that has logged in; its refresh thread lives."""
    manager.authenticate()
    return manager


@pytest.fixture
def eager_switching() -> Iterator[None]:
    """Threads take turns a hundred times as often, so that more of their orders are seen."""
    usual = sys.getswitchinterval()
    sys.setswitchinterval(5e-5)
    yield
    sys.setswitchinterval(usual)


@pytest.fixture
def no_collection() -> Iterator[None]:
    """Counts of objects and timings that a collection in the middle would disturb."""
    gc.collect()
    gc.disable()
    yield
    gc.enable()


@pytest.fixture
def stopwatch() -> Callable[[], float]:
    """Seconds since the fixture or the stopwatch was last asked."""
    last = time.monotonic()

    def lap() -> float:
        nonlocal last
        before, last = last, time.monotonic()
        return last - before

    return lap

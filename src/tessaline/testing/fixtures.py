"""pytest fixtures: a clock, a service, and a wallet that lives by both.

See `tessaline.testing` for how to enable them. Each test gets its own, and what it leaves open is closed.
"""

from __future__ import annotations

from collections.abc import Iterator

import pytest

from tessaline.auth import AuthManager
from tessaline.keeper import Keeper
from tessaline.testing import KEY, URL, FakeClock, FakeService


@pytest.fixture
def tessaline_clock() -> FakeClock:
    """A clock that stands still until the test moves it."""
    return FakeClock()


@pytest.fixture
def tessaline_service() -> FakeService:
    """A service without a network, which lets every wallet in."""
    return FakeService()


@pytest.fixture
def tessaline_manager(tessaline_clock: FakeClock, tessaline_service: FakeService) -> Iterator[AuthManager]:
    """A manager of the wallet of `KEY` at `URL`, on that clock and at that service; not logged in."""
    with AuthManager(KEY, URL, clock=tessaline_clock, _transport=tessaline_service) as manager:
        yield manager


@pytest.fixture
def tessaline_keeper(tessaline_manager: AuthManager) -> Iterator[Keeper]:
    """A keeper of that manager; logged in."""
    with Keeper(tessaline_manager) as keeper:
        keeper.start()
        yield keeper

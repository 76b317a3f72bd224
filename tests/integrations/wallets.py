"""Fixtures: a development server, and wallets that have logged in to it; nothing may be left behind."""

from __future__ import annotations

import secrets
from collections.abc import Callable, Iterator

import pytest

import canary
from devserver.testing import DevServer
from tessaline.auth import AuthManager
from tessaline.keeper import Keeper
from tests.shared.threads import none_left


@pytest.fixture(scope="package")
def server_process() -> Iterator[DevServer]:
    with DevServer(gate=True) as server:
        yield server
        assert server.stderr == ""


@pytest.fixture
def server(server_process: DevServer) -> Iterator[DevServer]:
    server_process.reset()
    yield server_process
    server_process.release()


@pytest.fixture(autouse=True)
def no_thread_left() -> Iterator[None]:
    yield from none_left()


@pytest.fixture
def new_wallet(server: DevServer, no_thread_left: None) -> Iterator[Callable[[], AuthManager]]:
    """Makes managers of new wallets that have not logged in, and closes them at the end."""
    made: list[AuthManager] = []

    def make() -> AuthManager:
        made.append(AuthManager(secrets.token_hex(32), server.url))
        return made[-1]

    yield make
    for manager in made:
        manager.close()


@pytest.fixture
def manager(new_wallet: Callable[[], AuthManager]) -> AuthManager:
    """A manager that has logged in."""
    manager = new_wallet()
    manager.authenticate()
    canary.plant("token", manager.get_token())
    return manager


@pytest.fixture
def keeper(new_wallet: Callable[[], AuthManager]) -> Iterator[Keeper]:
    """A keeper that has logged in."""
    with Keeper(new_wallet()) as keeper:
        keeper.start()
        canary.plant("token", keeper.get_token())
        yield keeper


__all__ = ["keeper", "manager", "new_wallet", "no_thread_left", "server", "server_process"]

"""What these tests share; those of programs and servers take a while."""

from __future__ import annotations

import pytest

from tests.integrations.wallets import (
    keeper,
    manager,
    new_wallet,
    no_thread_left,
    server,
    server_process,
)

# Fixtures.
__all__ = ["keeper", "manager", "new_wallet", "no_thread_left", "server", "server_process"]


@pytest.hookimpl(tryfirst=True)  # before those who choose by the marks
def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    for item in items:
        if "tests/examples/" in item.path.as_posix():
            item.add_marker(pytest.mark.process)
            item.add_marker(pytest.mark.timeout(60))

"""Common to these tests."""

from __future__ import annotations

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

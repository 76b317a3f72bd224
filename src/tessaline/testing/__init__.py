"""Test helpers for programs that use a wallet: no network, no waiting, and a day passes in a moment.

    from tessaline.auth import AuthManager
    from tessaline.testing import HOUR, KEY, URL, FakeClock, FakeService, claims_of

    clock, service = FakeClock(), FakeService()
    with AuthManager(KEY, URL, clock=clock, _transport=service) as manager:
        manager.authenticate()
        clock.advance(21 * HOUR)
        assert claims_of(manager.get_token())["login"] == 2

There are opt-in pytest fixtures (`tessaline.testing.fixtures`). Enable them with
`tessaline_fixtures = true` in pytest's ini options, with `-p tessaline.testing.fixtures` on its command
line, or with `pytest_plugins = ["tessaline.testing.fixtures"]` in the top-level `conftest.py`.

Importing this package imports neither pytest nor `tessaline.auth`.
"""

from typing import Final

from tessaline.testing._clock import FakeClock
from tessaline.testing._service import FakeService, claims_of

KEY: Final = f"{1:064x}"
"""A private key for tests. It is publicly known: its wallet must never own anything of value."""

URL: Final = "https://service.example"
"""A server URL for tests; no server can exist there."""

HOUR: Final = 3600.0
"""Seconds of an hour."""

__all__ = ["HOUR", "KEY", "URL", "FakeClock", "FakeService", "claims_of"]

"""The development server, in a separate process."""

from __future__ import annotations

from tests.shared.servers import http_process, server

# Fixtures.
__all__ = ["http_process", "server"]

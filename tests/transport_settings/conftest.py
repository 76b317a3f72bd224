"""The servers of the tests of the default transport."""

from __future__ import annotations

from tests.shared.servers import http_process, server, unused_port
from tests.transport.conftest import (
    authority,
    keeping,
    no_proxy,
    other,
    raw,
    roots,
    secured,
    serve,
    setenv,
)

# Fixtures.
__all__ = [
    "authority",
    "http_process",
    "keeping",
    "no_proxy",
    "other",
    "raw",
    "roots",
    "secured",
    "serve",
    "server",
    "setenv",
    "unused_port",
]

"""Servers for the programs, one per scheme for the whole folder."""

from __future__ import annotations

import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from devserver.testing import DevServer


@pytest.fixture(scope="package")
def http_server() -> Iterator[DevServer]:
    with DevServer() as server:
        yield server


@pytest.fixture(scope="package")
def https_server() -> Iterator[DevServer]:
    with DevServer(tls=True) as server:
        yield server

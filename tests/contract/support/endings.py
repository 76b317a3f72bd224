"""Fixtures of every test here and of the keeper's: nothing is left behind, no background thread raises."""

from __future__ import annotations

import sys
import threading
from collections.abc import Iterator
from typing import Any

import pytest

from .threads import ThreadCensus


@pytest.fixture(autouse=True)
def census() -> Iterator[ThreadCensus]:
    """The threads that a test starts; none may be left."""
    taken = ThreadCensus()
    yield taken
    taken.settle(0, "threads left behind", timeout=5.0)


@pytest.fixture(autouse=True)
def nothing_escapes(census: ThreadCensus, monkeypatch: pytest.MonkeyPatch) -> Iterator[None]:
    """Background threads raise nothing, and no exception is reported as unraisable."""
    escaped: list[Any] = []
    monkeypatch.setattr(threading, "excepthook", lambda seen: escaped.append(seen.exc_value))
    monkeypatch.setattr(sys, "unraisablehook", lambda seen: escaped.append(seen.exc_value))
    yield
    assert escaped == []

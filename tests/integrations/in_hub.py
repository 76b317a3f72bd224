"""Used by programs under gevent and eventlet; each has imported one of them, and patched what it wants."""

from __future__ import annotations

import json
import sys
import time
import traceback
import urllib.request
from collections.abc import Callable
from importlib import import_module
from typing import Any

from tests.sanitized import patience

_name = "gevent" if "gevent" in sys.modules else "eventlet"
_library: Any = import_module(_name)
sleep, spawn, Timeout = _library.sleep, _library.spawn, _library.Timeout
transport: Any = import_module(f"tessaline.integrations.{_name}").transport

__all__ = ["Server", "Ticks", "Timeout", "seen_in_frames", "sleep", "spawn", "transport", "until"]

DEADLINE = patience(15.0)
A_MOMENT = 0.002


class Ticks:
    """Counts the turns of another greenlet."""

    def __init__(self) -> None:
        self.count = 0
        spawn(self._tick)
        sleep(0)

    def _tick(self) -> None:
        while True:
            self.count += 1
            sleep(A_MOMENT)

    def go_on(self) -> None:
        """Returns when they have run for a while."""
        enough = self.count + 20
        until(lambda: self.count > enough)


class Server:
    """The development server of the test."""

    def __init__(self, url: str) -> None:
        self.url = url

    def hold(self, endpoint: str) -> None:
        """Hold every request there."""
        self._control("faults", {endpoint: [{"kind": "hold", "times": None}]})

    def let_go(self, endpoint: str) -> None:
        self._control("faults", {endpoint: []})
        self._control("release", {})

    def count(self, endpoint: str) -> int:
        """The number of requests there."""
        with urllib.request.urlopen(f"{self.url}/_control/state", timeout=DEADLINE) as answer:
            return int(json.load(answer)["counts"].get(endpoint, 0))

    def _control(self, name: str, body: Any) -> None:
        kind = {"Content-Type": "application/json"}
        request = urllib.request.Request(f"{self.url}/_control/{name}", json.dumps(body).encode(), kind)
        urllib.request.urlopen(request, timeout=DEADLINE).close()


def until(condition: Callable[[], object]) -> None:
    """Wait, as a greenlet does, until it is true."""
    limit = time.monotonic() + DEADLINE
    while not condition():
        assert time.monotonic() < limit, "it did not come true in time"
        sleep(A_MOMENT)


def seen_in_frames(error: BaseException, text: str) -> list[str]:
    """The functions in the error's traceback whose variables show the text."""
    frames = [frame for frame, _ in traceback.walk_tb(error.__traceback__)]
    return [frame.f_code.co_name for frame in frames if text in repr(frame.f_locals)]

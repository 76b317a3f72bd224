"""Replacements of modules: a `time` that does not sleep, a `threading` that does not start threads."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from typing import Any

from tests.shared.modules import StandIn


class ShortSleeps:
    """A `time` whose sleeps end at once and whose monotonic time jumps, so that a clock that does not move
    counts as stuck at the first poll: no wait of the component advances the hand clock."""

    def __init__(self, on_sleep: Callable[[float], None] | None = None) -> None:
        self.on_sleep = on_sleep
        self.sleeps: list[float] = []
        self._monotonic = 0.0
        self._lock = threading.Lock()

    def sleep(self, seconds: float) -> None:
        self.sleeps.append(seconds)
        if self.on_sleep is not None:
            self.on_sleep(seconds)

    def monotonic(self) -> float:
        with self._lock:
            self._monotonic += 2.0
            return self._monotonic

    def __getattr__(self, name: str) -> Any:
        return getattr(time, name)


def unstartable_threads(*refused: Callable[..., Any], error: BaseException | None = None) -> StandIn:
    """A `threading` whose threads with one of these targets cannot be started (none given: no thread can)."""

    class Thread(threading.Thread):
        def start(self) -> None:
            if not refused or self._target in refused:  # type: ignore[attr-defined]
                raise error if error is not None else RuntimeError("can't start new thread")
            super().start()

    return StandIn(threading, Thread=Thread)

"""Scripted time: readings, sleeps and waits as a test lists them."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from typing import Any


class ScriptedClock:
    """A clock that returns the listed readings in turn, then repeats the last one."""

    def __init__(self, *readings: Any) -> None:
        self._readings = list(readings)
        self.taken = 0

    def __call__(self) -> Any:
        index = min(self.taken, len(self._readings) - 1)
        self.taken += 1
        value = self._readings[index]
        if isinstance(value, BaseException):
            raise value
        return value


class FakeTime:
    """Replaces the `time` module: a sleep advances monotonic time by `step` (default: by its duration)."""

    def __init__(self, step: float | None = None, on_sleep: Callable[[int], None] | None = None) -> None:
        self.step = step
        self.on_sleep = on_sleep
        self.now = 500.0
        self.sleeps: list[float] = []
        self.elapsed = 0.0

    def monotonic(self) -> float:
        return self.now

    def sleep(self, seconds: float) -> None:
        self.sleeps.append(seconds)
        moved = seconds if self.step is None else self.step
        self.now += moved
        self.elapsed += moved
        if self.on_sleep is not None:
            self.on_sleep(len(self.sleeps))

    def __getattr__(self, name: str) -> Any:
        return getattr(time, name)


class ScriptedEvent(threading.Event):
    """An event whose `wait` never blocks: it records the time-out and runs the script for that wait."""

    def __init__(self, script: Callable[[int], None] | None = None) -> None:
        super().__init__()
        self.script = script
        self.waits: list[tuple[tuple[Any, ...], dict[str, Any]]] = []
        self.cleared = 0

    @property
    def timeouts(self) -> list[Any]:
        return [kwargs.get("timeout", args[0] if args else None) for args, kwargs in self.waits]

    def wait(self, *args: Any, **kwargs: Any) -> bool:
        self.waits.append((args, kwargs))
        if len(self.waits) > 1000:
            raise AssertionError("the event is waited for without end")
        if self.script is not None:
            self.script(len(self.waits))
        return self.is_set()

    def clear(self) -> None:
        self.cleared += 1
        super().clear()

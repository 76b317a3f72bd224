"""How a task of asyncio or trio waits, and how another thread wakes it."""

from __future__ import annotations

import asyncio
import contextlib
import sys
from collections.abc import Callable, Iterable
from typing import Protocol


class Signal(Protocol):
    """Created and awaited by one task."""

    @property
    def loop(self) -> object:
        """Identifies the event loop of the task."""

    async def wait(self) -> None: ...
    def wake(self) -> None:
        """On the thread of the loop: wake the task, if it still waits."""

    def post(self, call: Callable[[Iterable[Signal]], None], signals: Iterable[Signal]) -> None:
        """On any thread: have the loop make the call. RuntimeError if the loop has ended."""


class _OfAsyncio:
    def __init__(self, loop: asyncio.AbstractEventLoop) -> None:
        self.loop = loop
        self._future: asyncio.Future[None] = loop.create_future()

    async def wait(self) -> None:
        await self._future

    def wake(self) -> None:
        if not self._future.done():
            self._future.set_result(None)

    def post(self, call: Callable[[Iterable[Signal]], None], signals: Iterable[Signal]) -> None:
        self.loop.call_soon_threadsafe(call, signals)


class _OfTrio:
    def __init__(self) -> None:
        import trio

        self.loop = trio.lowlevel.current_trio_token()
        event = trio.Event()
        self.wait = event.wait
        self.wake = event.set

    def post(self, call: Callable[[Iterable[Signal]], None], signals: Iterable[Signal]) -> None:
        self.loop.run_sync_soon(call, signals)


def new_signal() -> Signal:
    """A signal for the current task.

    Raises:
        RuntimeError: No event loop runs here.
    """
    # A program that runs trio has imported it.
    if "trio" in sys.modules and _in_trio_task():
        return _OfTrio()
    return _OfAsyncio(asyncio.get_running_loop())


def _in_trio_task() -> bool:
    import trio

    if not trio.lowlevel.in_trio_task():
        return False
    # Each may run as a guest of the other; the current task is that of the inner one.
    try:
        return asyncio.current_task() is None
    except RuntimeError:
        return True


def wake_all(signals: Iterable[Signal]) -> bool:
    """Wake the tasks, from any thread, by one call per loop; returns whether any loop still runs."""
    by_loop: dict[object, list[Signal]] = {}
    for signal in signals:
        by_loop.setdefault(signal.loop, []).append(signal)
    woken = False
    for together in by_loop.values():
        # No task waits in a loop that has ended.
        with contextlib.suppress(RuntimeError):
            together[0].post(_wake_here, together)
            woken = True
    return woken


def _wake_here(signals: Iterable[Signal]) -> None:
    for signal in signals:
        signal.wake()

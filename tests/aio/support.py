"""Sources whose calls wait until released, and many concurrent tasks."""

from __future__ import annotations

import threading
import time
from collections.abc import Awaitable, Callable
from typing import Any

import anyio

from tessaline.aio import AsyncTokens
from tests.sanitized import patience
from tests.shared.threads import DEADLINE

LIBRARIES = ("asyncio", "trio")
WAITER = "tessaline-waiter"


class Source:
    """Calls wait until released; each takes the next of `outcomes`, or returns a new token."""

    def __init__(self, *outcomes: Any) -> None:
        self.outcomes = list(outcomes)
        self.calls: list[Any] = []
        self._gate = threading.Semaphore(0)
        self._is_open = False

    def let_go(self, calls: int = 1) -> None:
        self._gate.release(calls)

    def open(self) -> None:
        """From now on no call waits."""
        self._is_open = True
        self._gate.release(1000)

    def get_token(self) -> Any:
        return self._answer("get_token", None)

    def _answer(self, call: str, argument: Any) -> Any:
        self.calls.append((call, argument))
        place = len(self.calls)
        if not self._is_open and not self._gate.acquire(timeout=DEADLINE):
            raise AssertionError("nobody let the call go")
        outcome = self.outcomes.pop(0) if self.outcomes else f"token {place}"
        if isinstance(outcome, BaseException):
            raise outcome
        return outcome


class RefusableSource(Source):
    def report_refused(self, token: str) -> Any:
        return self._answer("report_refused", token)


def waiter_threads() -> list[threading.Thread]:
    return [thread for thread in threading.enumerate() if thread.name == WAITER]


async def eventually(condition: Callable[[], Any], what: str) -> None:
    """Run the loop until it is true."""
    limit = time.monotonic() + DEADLINE
    while not condition():
        assert time.monotonic() < limit, f"{what} did not come true"
        await anyio.sleep(0.0005)


class Crowd:
    """A group of tasks and their results, including errors; cancelled ones have none."""

    def __init__(self) -> None:
        self._group = anyio.create_task_group()
        self.begun = 0
        self.outcomes: list[Any] = []

    async def __aenter__(self) -> Crowd:
        await self._group.__aenter__()
        return self

    async def __aexit__(self, *given: Any) -> None:
        await self._group.__aexit__(*given)

    def cancel(self) -> None:
        self._group.cancel_scope.cancel()

    async def add(self, call: Callable[[], Awaitable[Any]], count: int = 1) -> None:
        """Start them; when this returns, each has returned or begun to wait."""
        target = self.begun + count
        for _ in range(count):
            self._group.start_soon(self._one, call)
        await eventually(lambda: self.begun == target, "the beginning of all tasks")

    async def _one(self, call: Callable[[], Awaitable[Any]]) -> None:
        self.begun += 1
        try:
            self.outcomes.append(await call())
        except Exception as error:
            self.outcomes.append(error)

    async def outcomes_of_all(self) -> list[Any]:
        await eventually(lambda: len(self.outcomes) == self.begun, "the end of all tasks")
        return self.outcomes


async def leave_waiting(tokens: AsyncTokens, source: Source) -> None:
    """A running call for a task that was cancelled."""
    before = len(source.calls)
    async with Crowd() as leaving:
        await leaving.add(tokens.get_token)
        await eventually(lambda: len(source.calls) > before, "the call")
        leaving.cancel()


def run(library: str, main: Callable[[], Awaitable[Any]]) -> Any:
    """Run it in a loop of that library, with a deadline."""

    async def bounded() -> Any:
        with anyio.fail_after(patience(30.0)):
            return await main()

    return anyio.run(bounded, backend=library)

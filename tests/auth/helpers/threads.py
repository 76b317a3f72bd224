"""Threads that end: every join has a deadline, every wait for a condition too."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from typing import Any

from tests.sanitized import patience

DEADLINE = patience(10.0)


def join(thread: threading.Thread, timeout: float = DEADLINE) -> None:
    """Join `thread`, failing the test when it is still alive after `timeout` seconds."""
    thread.join(timeout)
    if thread.is_alive():
        raise AssertionError(f"{thread!r} is still alive after {timeout} s")


def until(condition: Callable[[], Any], timeout: float = DEADLINE, what: str = "the condition") -> Any:
    """Return the first true value of `condition`, failing after `timeout` seconds of real time."""
    limit = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > limit:
            raise AssertionError(f"{what} did not come true within {timeout} s")
        time.sleep(0.001)


def waiters(event: threading.Event) -> int:
    """Number of threads that are blocked in `event.wait()` at this moment."""
    return len(event._cond._waiters)  # type: ignore[attr-defined]


class Worker:
    """Runs one call on a thread of its own and keeps what came out of it, `BaseException` included."""

    def __init__(self, call: Callable[..., Any], *args: Any, **kwargs: Any) -> None:
        self._call = (call, args, kwargs)
        self.value: Any = None
        self.error: BaseException | None = None
        self.seconds: float | None = None
        self.thread = threading.Thread(target=self._run, daemon=True, name="test-worker")
        self.thread.start()

    def _run(self) -> None:
        call, args, kwargs = self._call
        begun = time.monotonic()
        try:
            self.value = call(*args, **kwargs)
        except BaseException as error:
            self.error = error
        finally:
            self.seconds = time.monotonic() - begun
            del self._call

    @property
    def alive(self) -> bool:
        return self.thread.is_alive()

    def finish(self, timeout: float = DEADLINE) -> Worker:
        join(self.thread, timeout)
        return self

    def result(self, timeout: float = DEADLINE) -> Any:
        """The call's value; its error is raised here."""
        self.finish(timeout)
        if self.error is not None:
            raise self.error
        return self.value

    def failure(self, timeout: float = DEADLINE) -> BaseException:
        """The error with which the call ended; a call that returned fails the test."""
        self.finish(timeout)
        assert self.error is not None, f"the call returned {self.value!r} instead of failing"
        return self.error


def within(timeout: float, call: Callable[..., Any], *args: Any, **kwargs: Any) -> Any:
    """Make the call on another thread and give back its result: a dead-lock fails instead of hanging."""
    return Worker(call, *args, **kwargs).result(timeout)

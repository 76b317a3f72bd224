"""Threads that end: every join, and every wait for another thread, has a deadline."""

from __future__ import annotations

import contextlib
import os
import threading
import time
from collections.abc import Callable, Iterable, Iterator
from pathlib import Path
from typing import Any

from tests.sanitized import patience

DEADLINE = patience(20.0)


def native_threads() -> int:
    """How many threads the process has, without the one that closes idle connections."""
    found = 0
    for task in os.listdir("/proc/self/task"):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # ended meanwhile
            found += Path(f"/proc/self/task/{task}/comm").read_text() != "tessaline-idle\n"
    return found


def join_all(threads: Iterable[threading.Thread], timeout: float = DEADLINE) -> None:
    """Join them; fails the test if one is still alive after `timeout` seconds."""
    threads = list(threads)
    limit = time.monotonic() + timeout
    for thread in threads:
        thread.join(max(0.0, limit - time.monotonic()))
    left = [thread for thread in threads if thread.is_alive()]
    if left:
        raise AssertionError(f"still alive after {timeout} s: {left!r}")


def join(thread: threading.Thread, timeout: float = DEADLINE) -> None:
    join_all([thread], timeout)


def until(condition: Callable[[], Any], what: str = "the condition", timeout: float = DEADLINE) -> Any:
    """The first true value of `condition`; fails if there is none within `timeout` seconds."""
    limit = time.monotonic() + timeout
    while not (value := condition()):
        if time.monotonic() > limit:
            raise AssertionError(f"{what} did not come true within {timeout} s")
        time.sleep(0.0005)
    return value


def none_left(*others: str) -> Iterator[None]:
    """The body of a fixture: no thread started since may be left, except those named like `others`."""
    before = set(threading.enumerate())
    yield

    def left() -> list[threading.Thread]:
        come = set(threading.enumerate()) - before
        return [thread for thread in come if thread.is_alive() and not thread.name.startswith(others)]

    until(lambda: not left(), "the end of every thread")


def waiters(event: threading.Event) -> int:
    """How many threads are blocked in `event.wait()` now."""
    return len(event._cond._waiters)  # type: ignore[attr-defined]


class Worker:
    """One call on a separate thread, and its result or error, `BaseException` included."""

    NAME = "test-worker"

    def __init__(self, call: Callable[..., Any], *args: Any, **kwargs: Any) -> None:
        self.value: Any = None
        self.error: BaseException | None = None
        self.seconds: float | None = None
        self.ended_at: float | None = None
        # The thread releases its arguments when it ends.
        self.thread = threading.Thread(target=self._run, args=(call, args, kwargs), daemon=True)
        self.thread.name = self.NAME
        self.thread.start()

    def _run(self, call: Callable[..., Any], args: Any, kwargs: Any) -> None:
        begun = time.monotonic()
        try:
            self.value = call(*args, **kwargs)
        except BaseException as error:
            self.error = error
        finally:
            self.ended_at = time.monotonic()
            self.seconds = self.ended_at - begun

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
        assert self.error is not None, f"the call returned {type(self.value)} instead of failing"
        return self.error


def within(timeout: float, call: Callable[..., Any], *args: Any, **kwargs: Any) -> Any:
    """Make the call on another thread and return its result: a deadlock fails instead of hanging."""
    return Worker(call, *args, **kwargs).result(timeout)

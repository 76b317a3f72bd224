"""Threads that end by a deadline, and waiting for what another thread does."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable, Iterable
from typing import Any

from tests.sanitized import patience

DEADLINE = patience(15.0)


def until(condition: Callable[[], Any], what: str = "the condition", timeout: float = DEADLINE) -> Any:
    """The first true value of `condition`; fails when there is none within `timeout` seconds."""
    limit = time.monotonic() + timeout
    while not (value := condition()):
        if time.monotonic() > limit:
            raise AssertionError(f"{what}: not within {timeout} s")
        time.sleep(0.0005)
    return value


def join_all(threads: Iterable[threading.Thread], timeout: float = DEADLINE) -> None:
    limit = time.monotonic() + timeout
    for thread in threads:
        thread.join(max(0.0, limit - time.monotonic()))
    left = [thread for thread in threads if thread.is_alive()]
    assert not left, f"still alive after {timeout} s: {left!r}"


class Caller:
    """One call on a thread of its own; keeps what came of it and when."""

    def __init__(self, call: Callable[..., Any], *args: Any, **kwargs: Any) -> None:
        self.value: Any = None
        self.error: BaseException | None = None
        self.ended_at: float | None = None
        self.thread = threading.Thread(target=self._run, args=(call, args, kwargs), daemon=True)
        self.thread.name = "test-caller"
        self.thread.start()

    def _run(self, call: Callable[..., Any], args: Any, kwargs: Any) -> None:
        try:
            self.value = call(*args, **kwargs)
        except BaseException as error:
            self.error = error
        finally:
            self.ended_at = time.monotonic()

    @property
    def busy(self) -> bool:
        return self.thread.is_alive()

    def finish(self, timeout: float = DEADLINE) -> Caller:
        join_all([self.thread], timeout)
        return self

    def result(self, timeout: float = DEADLINE) -> Any:
        self.finish(timeout)
        if self.error is not None:
            raise self.error
        return self.value

    def failure(self, timeout: float = DEADLINE) -> BaseException:
        self.finish(timeout)
        assert self.error is not None, f"returned {self.value!r} instead of failing"
        return self.error


class WatchedEvent(threading.Event):
    """An event that tells when somebody begins to wait for it, and with which time-out."""

    def __init__(self) -> None:
        super().__init__()
        self._begun = threading.Semaphore(0)
        self.timeouts: list[float | None] = []

    def wait(self, timeout: float | None = None) -> bool:
        self.timeouts.append(timeout)
        self._begun.release()
        return super().wait(timeout)

    def waited_for(self) -> None:
        assert self._begun.acquire(timeout=DEADLINE), "nobody waited for the event"


class ThreadCensus:
    """Which threads have come since the census was taken."""

    def __init__(self) -> None:
        self._known = set(threading.enumerate())

    def newcomers(self) -> list[threading.Thread]:
        return [
            thread
            for thread in threading.enumerate()
            if thread not in self._known and thread.name != "test-caller"
        ]

    def settle(self, count: int, what: str = "background threads", timeout: float = DEADLINE) -> None:
        limit = time.monotonic() + timeout
        while len(self.newcomers()) != count:
            if time.monotonic() > limit:
                raise AssertionError(f"{what}: {self.newcomers()!r}, not {count}, after {timeout} s")
            time.sleep(0.0005)

"""Waits of the component's threads on simulated time."""

from __future__ import annotations

import threading
from _thread import LockType, allocate_lock
from collections.abc import Callable
from typing import Any

DEADLINE = 60.0


class Activity:
    """How many threads of one manager are active; a driver waits until none is."""

    def __init__(self) -> None:
        self.lock = allocate_lock()
        self._active = 0
        self._waiter: LockType | None = None

    def begin(self, count: int = 1) -> None:
        with self.lock:
            self.add(count)

    def end(self) -> None:
        with self.lock:
            self.take()

    def add(self, count: int) -> None:
        """`begin`, with the lock held."""
        self._active += count

    def take(self) -> None:
        """`end`, with the lock held."""
        self._active -= 1
        if self._active == 0 and self._waiter is not None:
            self._waiter.release()
            self._waiter = None

    def wait_until_quiet(self) -> None:
        """Wait until no thread is active; a watchdog ends the process if that never happens."""
        with self.lock:
            if self._active == 0:
                return
            waiter = self._waiter = allocate_lock()
            waiter.acquire()
        waiter.acquire()


class ParkingEvent:
    """The event on which a refresh loop sleeps: its time-out never passes by itself.

    With an injected clock the loop polls the clock twenty times a second, since it cannot know when it
    advances. Here the driver knows, and sets the event whenever it may have: no poll is missed, and a
    thousand loops are not woken in vain.
    """

    def __init__(self, activity: Activity) -> None:
        self._activity = activity
        self._flag = False
        self._parked: list[LockType] = []

    def is_set(self) -> bool:
        return self._flag

    def set(self) -> None:
        with self._activity.lock:
            self._flag = True
            woken, self._parked = self._parked, []
            self._activity.add(len(woken))
        for one in woken:
            one.release()

    def clear(self) -> None:
        self._flag = False

    def wait(self, timeout: float | None = None) -> bool:
        with self._activity.lock:
            if self._flag:
                return True
            mine = allocate_lock()
            mine.acquire()
            self._parked.append(mine)
            self._activity.take()
        mine.acquire()
        return True


class TimedEvent:
    """An event whose time-out passes in simulated time: `due` returns when, and `expire` ends the wait."""

    def __init__(self, now: Callable[[], float]) -> None:
        self._now = now
        self._lock = allocate_lock()
        self._flag = False
        self._waits: list[tuple[float, LockType]] = []

    def is_set(self) -> bool:
        return self._flag

    def set(self) -> None:
        with self._lock:
            self._flag = True
            waits, self._waits = self._waits, []
        for _, one in waits:
            one.release()

    def clear(self) -> None:
        self._flag = False

    def wait(self, timeout: float) -> bool:
        with self._lock:
            if self._flag:
                return True
            mine = allocate_lock()
            mine.acquire()
            self._waits.append((self._now() + timeout, mine))
        mine.acquire()
        return self._flag

    def due(self) -> float | None:
        """When the first wait times out."""
        with self._lock:
            return min((when for when, _ in self._waits), default=None)

    def expire(self) -> None:
        """End the wait that times out first."""
        with self._lock:
            first = min(self._waits, key=lambda wait: wait[0])
            self._waits.remove(first)
        first[1].release()


class CountedThread(threading.Thread):
    """A thread of a manager, active in its life from its start to its end."""

    def __init__(self, *, target: Any, daemon: bool) -> None:
        super().__init__(target=target, daemon=daemon)
        self._activity: Activity = target.__self__.life.activity

    def start(self) -> None:
        self._activity.begin()
        try:
            super().start()
        except BaseException:
            self._activity.end()
            raise

    def run(self) -> None:
        try:
            super().run()
        finally:
            self._activity.end()

"""Threads that take turns: one runs at a time, another only when that one waits or sleeps.

So the choices passed in determine every order of events, and a wait that nothing can end is detected
at once. Time is virtual and advances when all threads wait.
"""

from __future__ import annotations

import threading
import time
from collections.abc import Callable, Iterable, Iterator
from typing import Any

# Virtual seconds. Every wait is within these limits, so that a poll takes few turns and nothing takes many.
STRETCH = 6.0
LONGEST_WAIT = 12.0
PATIENCE = 100.0
REAL_PATIENCE = 25.0


class Hang(BaseException):
    """A thread waits for what cannot happen."""


class Task:
    """A call on a separate thread, which runs when it has its turn."""

    def __init__(self, turns: Turns, call: Callable[[], Any] | None) -> None:
        self.turns = turns
        self.call = call
        self.turn = threading.Lock()
        self.turn.acquire()
        self.ready: Callable[[], bool] = lambda: True
        self.until: float | None = None
        self.done = False
        self.shown: Any = threading.current_thread()

    def start(self) -> None:
        self.turns.tasks.append(self)
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self) -> None:
        self.turn.acquire()
        try:
            assert self.call is not None
            self.call()
        except BaseException as error:
            self.turns.escaped.append(error)
        finally:
            self.done = True
            self.turns.tasks.remove(self)
            self.turns.hand_over()


class Turns:
    """The thread whose turn it is."""

    def __init__(self, choices: Iterable[int] = ()) -> None:
        self.now = 0.0
        self.main = Task(self, None)
        self.tasks = [self.main]
        self.current = self.main
        self.escaped: list[BaseException] = []
        # What the next threads raise instead of starting.
        self.start_faults: list[BaseException] = []
        self.hung = False
        self._choices: Iterator[int] = iter(choices)

    def hand_over(self) -> Task:
        """Give the turn to a thread that can continue; if none can, advance to the end of the next wait."""
        able = [task for task in self.tasks if task.ready()]
        if able:
            chosen = able[next(self._choices, 0) % len(able)]
        else:
            timed = [task for task in self.tasks if task.until is not None]
            if timed:
                chosen = min(timed, key=lambda task: task.until or 0.0)
                self.now = max(self.now, chosen.until or 0.0)
            else:
                self.hung = True
                chosen = self.main
        self.current = chosen
        chosen.turn.release()
        return chosen

    def wait(self, ready: Callable[[], bool], seconds: float | None) -> bool:
        """Let others run until it is ready or the time is over."""
        me = self.current
        me.ready = ready
        me.until = None if seconds is None else self.now + min(max(seconds, 0.0) * STRETCH, LONGEST_WAIT)
        begun = self.now
        while True:
            # To the end of the queue, so that without choices every thread gets a turn.
            self.tasks.remove(me)
            self.tasks.append(me)
            self.hand_over()
            if not me.turn.acquire(timeout=REAL_PATIENCE):
                raise Hang("no turn")
            if self.hung or (seconds is None and self.now - begun > PATIENCE):
                self.hung = True
                raise Hang("waits without end")
            if ready() or (me.until is not None and self.now >= me.until):
                break
        me.ready, me.until = (lambda: True), None
        return ready()

    def pause(self) -> None:
        """Let others run, if any can."""
        self.wait(lambda: True, 0.0)

    def others_rest(self) -> bool:
        return not any(task.ready() for task in self.tasks if task is not self.main)

    def settle(self, quiet: Callable[[], bool]) -> None:
        """Continue when all others rest and it is quiet."""
        self.wait(lambda: quiet() and self.others_rest(), None)

    def run(self, call: Callable[[], Any]) -> Task:
        task = Task(self, call)
        task.start()
        return task

    def threading(self) -> Any:
        """A `threading` whose threads and events take turns."""
        return _Threading(self)

    def time(self) -> Any:
        return _Time(self)


class _Threading:
    def __init__(self, turns: Turns) -> None:
        class Event(threading.Event):
            def wait(self, timeout: float | None = None) -> bool:
                return self.is_set() or turns.wait(self.is_set, timeout)

        class Thread:
            def __init__(self, target: Callable[[], Any], daemon: bool) -> None:
                assert daemon
                self._task = Task(turns, target)
                self._task.shown = self
                self._started = False

            def start(self) -> None:
                if turns.start_faults:
                    raise turns.start_faults.pop(0)
                self._started = True
                self._task.start()

            def is_alive(self) -> bool:
                return self._started and not self._task.done

            def join(self, timeout: float | None = None) -> None:
                turns.wait(lambda: not self.is_alive(), timeout)

        self.Event = Event
        self.Thread = Thread
        self.current_thread = lambda: turns.current.shown

    def __getattr__(self, name: str) -> Any:
        return getattr(threading, name)


class _Time:
    def __init__(self, turns: Turns) -> None:
        self.monotonic = lambda: turns.now
        self.sleep = lambda seconds: turns.wait(lambda: False, seconds)

    def __getattr__(self, name: str) -> Any:
        return getattr(time, name)

"""Many lives in one process, day by day, and the size of the process on the last day."""

from __future__ import annotations

import contextlib
import ctypes
import gc
import queue
import random
import sys
import threading
import time
import traceback
from collections.abc import Iterator, Sequence
from dataclasses import dataclass, field
from typing import Any

from tessaline import auth
from tests.integration.support import descriptors
from tests.shared.modules import StandIn

from .life import Life, Sleeper
from .waits import CountedThread
from .watchdog import Watchdog

_SETTLED_BY = 0.1
_REPORTED = 100
# Per manager: a tenth of what one leaked object per refresh would add up to.
_MOST_BLOCKS = 40
_MOST_NATIVE_BYTES = 2048
_MOST_RESIDENT = 16 << 20


@dataclass
class Figures:
    """The results of the lives."""

    days: int = 0
    requests: int = 0
    faults: int = 0
    logins: int = 0
    stores: int = 0
    served: int = 0
    violations: int = 0


@dataclass(frozen=True)
class Size:
    """What the process has allocated."""

    blocks: int
    native: int
    resident: int
    threads: int
    descriptors: int

    @staticmethod
    def now() -> Size:
        gc.collect()
        with open("/proc/self/statm") as statm:
            resident = int(statm.read().split()[1]) * 4096
        return Size(
            sys.getallocatedblocks(), _native_bytes(), resident, threading.active_count(), descriptors()
        )


class _MallInfo(ctypes.Structure):
    _fields_ = tuple(
        (name, ctypes.c_size_t)
        for name in (
            "arena", "ordblks", "smblks", "hblks", "hblkhd",
            "usmblks", "fsmblks", "uordblks", "fordblks", "keepcost",
        )
    )  # fmt: skip


def _native_bytes() -> int:
    """The memory that malloc has allocated."""
    libc = ctypes.CDLL(None)
    libc.mallinfo2.restype = _MallInfo
    info = libc.mallinfo2()
    return int(info.uordblks + info.hblkhd)


class Asker:
    """A thread of the program that requests tokens on demand."""

    def __init__(self) -> None:
        self._asked: queue.SimpleQueue[Life | None] = queue.SimpleQueue()
        self._got: queue.SimpleQueue[Any] = queue.SimpleQueue()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def __call__(self, life: Life) -> str:
        self._asked.put(life)
        got = self._got.get()
        life.insist(isinstance(got, str), f"no token during back-off: {got!r}")
        return str(got)

    def stop(self) -> None:
        self._asked.put(None)
        self._thread.join()

    def _run(self) -> None:
        while (life := self._asked.get()) is not None:
            try:
                self._got.put(life.manager.get_token())
            except Exception as error:
                self._got.put(error)


@contextlib.contextmanager
def _seams(sleeper: Sleeper) -> Iterator[None]:
    threads = {
        name: getattr(threading, name)
        for name in ("Event", "Lock", "current_thread", "main_thread", "get_ident")
    }
    replaced = {
        "_time": StandIn(time, sleep=sleeper.sleep, monotonic=time.monotonic, time=time.time),
        "random": StandIn(random, uniform=sleeper.uniform),
        "threading": StandIn(threading, Thread=CountedThread, **threads),
        "log_library_surface_event": lambda *_args, **_kwargs: None,
    }
    before = {name: getattr(auth, name) for name in replaced}
    try:
        for name, value in replaced.items():
            setattr(auth, name, value)
        yield
    finally:
        for name, value in before.items():
            setattr(auth, name, value)


@dataclass
class _Run:
    days: int
    watchdog: Watchdog
    figures: Figures = field(default_factory=Figures)

    def day(self, lives: Sequence[Life], day: int) -> list[Life]:
        """One day of each; returns the lives that continue."""
        return [life for life in lives if self._one_day(life, day)]

    def _one_day(self, life: Life, day: int) -> bool:
        self.watchdog.watch(f"life {life.seed} on day {day}\n{self.command(life)}")
        trouble: BaseException | None = None
        try:
            if day == 0:
                life.be_born()
            life.live(day)
        except Exception as error:
            trouble = error
        self.figures.days += 1
        if not life.trouble and trouble is None:
            return True
        self.figures.violations += 1
        print(f"VIOLATION in life {life.seed}: {life.trouble}\n{self.command(life)}", file=sys.stderr)
        if trouble is not None:
            traceback.print_exception(trouble)
        return False

    def command(self, life: Life) -> str:
        return f'make chaos ARGS="--life {life.seed} --days {self.days}"'

    def compare(self, early: Size, late: Size, managers: int) -> None:
        for what, grown, most in (
            ("blocks", late.blocks - early.blocks, max(20_000, _MOST_BLOCKS * managers)),
            ("native bytes", late.native - early.native, max(1 << 20, _MOST_NATIVE_BYTES * managers)),
            ("resident bytes", late.resident - early.resident, _MOST_RESIDENT),
            ("threads", late.threads - early.threads, 0),
            ("descriptors", late.descriptors - early.descriptors, 0),
        ):
            print(f"  {what}: {grown:+d} (at most {most:+d})")
            if grown > most:
                self.figures.violations += 1
                print(f"VIOLATION: {what} have grown by {grown}", file=sys.stderr)


def run(seeds: Sequence[str], days: int, watchdog: Watchdog) -> Figures:
    """Run the lives of `seeds`; prints violations on standard error with the command that repeats them."""
    run = _Run(days, watchdog)
    sleeper = Sleeper()
    asker = Asker()
    threads_before = threading.active_count()
    with _seams(sleeper):
        lives = everyone = [Life(seed, sleeper, asker) for seed in seeds]
        settled = max(1, int(days * _SETTLED_BY))
        early: Size | None = None
        for day in range(days):
            lives = run.day(lives, day)
            if (day + 1) % _REPORTED == 0:
                print(f"  day {day + 1}: {Size.now()}", flush=True)
            if day + 1 == settled:
                early = _with_every_loop_running(lives, len(lives) == len(everyone))
        late = _with_every_loop_running(lives, len(lives) == len(everyone))
        print(f"from day {settled} to day {days}, {len(lives)} managers:")
        if early is not None and len(lives) == len(everyone):
            run.compare(early, late, len(lives))
        for life in everyone:
            # After a violation it may not be able to.
            with contextlib.suppress(Exception):
                life.die()
    run.watchdog.rest()
    asker.stop()
    _check_threads(run.figures, threads_before - 1)
    figures = run.figures
    for life in everyone:
        figures.requests += life.world.requests
        figures.faults += life.world.faults
        figures.logins += life.logins
        figures.stores += life.stores
        figures.served += life.served
    return figures


def _with_every_loop_running(lives: Sequence[Life], whole: bool) -> Size:
    """The size of the process with one refresh thread per manager, when all of the `whole` are running."""
    for life in lives:
        life.wait_for_good_weather()
    if not whole:
        return Size.now()
    # A thread that has finished its work takes a moment to disappear.
    limit = time.monotonic() + 10
    alive = 0
    while time.monotonic() < limit:
        loops = [life.manager._refresh_thread for life in lives]
        alive = sum(loop is not None and loop.is_alive() for loop in loops)
        if threading.active_count() <= alive + 4:
            break
        time.sleep(0.05)
    return Size.now()


def _check_threads(figures: Figures, before: int) -> None:
    limit = time.monotonic() + 30
    while threading.active_count() > before and time.monotonic() < limit:
        time.sleep(0.05)
    if threading.active_count() > before and figures.violations == 0:
        figures.violations += 1
        print(f"VIOLATION: threads are left behind: {threading.enumerate()[:5]}", file=sys.stderr)

"""Keepers in a process that forks: none is caught in the middle of a step, and all go on in the child."""

from __future__ import annotations

import contextlib
import os
import threading
import weakref
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from .scheduler import Scheduler

_watched: weakref.WeakSet[Scheduler] = weakref.WeakSet()
# By the thread that forks: several may at once.
_held: dict[int, list[Scheduler]] = {}
# Real seconds that a fork waits for a step to end; a clock that is read in it may be slow.
_PATIENCE = 1.0


def watch(scheduler: Scheduler) -> None:
    """Have the scheduler survive forks for as long as it lives."""
    _watched.add(scheduler)


def _before() -> None:
    held = _held[threading.get_ident()] = []
    for scheduler in list(_watched):
        if scheduler.lock.acquire(timeout=_PATIENCE):
            held.append(scheduler)


def _in_parent() -> None:
    for scheduler in _held.pop(threading.get_ident(), ()):
        scheduler.after_fork_in_parent()
        scheduler.lock.release()


def _in_child() -> None:
    held = _held.pop(threading.get_ident(), [])
    _held.clear()
    for scheduler in list(_watched):
        # What keeps one from going on, such as a lack of threads, keeps no other.
        with contextlib.suppress(Exception):
            scheduler.after_fork_in_child(is_lock_held=scheduler in held)


# At import: hooks that are registered later, and may wait for threads that ask a keeper, run before.
os.register_at_fork(before=_before, after_in_parent=_in_parent, after_in_child=_in_child)

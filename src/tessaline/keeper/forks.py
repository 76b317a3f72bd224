"""Keepers and forks: no fork happens in the middle of a step, and all keepers continue in the child."""

from __future__ import annotations

import contextlib
import os
import threading
import weakref
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from .scheduler import Scheduler

_watched: weakref.WeakSet[Scheduler] = weakref.WeakSet()
# By the forking thread: several may fork at once.
_held: dict[int, list[Scheduler]] = {}
# Real seconds that a fork waits for a step to end; the step may read a slow clock.
_PATIENCE = 1.0


def watch(scheduler: Scheduler) -> None:
    """Make the scheduler continue after forks, as long as it exists."""
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
        # A failure of one, such as a lack of threads, must not affect the others.
        with contextlib.suppress(Exception):
            scheduler.after_fork_in_child(is_lock_held=scheduler in held)


# At import, so that hooks registered later run first: they may wait for threads that use a keeper.
os.register_at_fork(before=_before, after_in_parent=_in_parent, after_in_child=_in_child)

"""Where leaked memory was allocated."""

from __future__ import annotations

import tracemalloc
from collections.abc import Callable

from . import caches

FRAMES = 12
REPETITIONS = 4
PLACES = 3


def places(repeat: Callable[[], object]) -> list[str]:
    """The tracebacks of the blocks that grew most in some more repetitions."""
    tracemalloc.start(FRAMES)
    try:
        repeat()
        caches.clear()
        before = tracemalloc.take_snapshot()
        for _ in range(REPETITIONS):
            repeat()
        caches.clear()
        after = tracemalloc.take_snapshot()
    finally:
        tracemalloc.stop()
    own = tracemalloc.Filter(False, tracemalloc.__file__)
    grown = after.filter_traces([own]).compare_to(before.filter_traces([own]), "traceback")
    most = sorted(grown, key=lambda one: one.count_diff, reverse=True)[:PLACES]
    return [
        f"{one.count_diff / REPETITIONS:g} blocks of each repetition were allocated at\n"
        + "\n".join(one.traceback.format())
        for one in most
        if one.count_diff >= REPETITIONS
    ]

"""From readings to leaks: what stays is one, but neither what varies nor a cache that fills."""

from __future__ import annotations

from collections.abc import Sequence
from itertools import pairwise

PARTS = 4


def may_leak(readings: Sequence[int], least: int) -> bool:
    """Whether the last reading allows for a leak of `least` somewhere since the first."""
    return readings[-1] - readings[0] >= least


def leaked_per_repetition(readings: Sequence[int], least: int) -> float:
    """How much each repetition left; 0 if that is less than half of `least`.

    Temporary objects do not raise the lowest reading of a quarter of them, and one-time objects raise it
    only once; a leak raises it from each quarter to the next.
    """
    size = len(readings) // PARTS
    lowest = [min(readings[begin : begin + size]) for begin in range(0, size * PARTS, size)]
    if any(after - before < least * size / 2 for before, after in pairwise(lowest)):
        return 0.0
    return (lowest[-1] - lowest[0]) / (size * (PARTS - 1))

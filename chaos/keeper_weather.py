"""The environment of a keeper: outages for a third of the time, eras, and a clock that is set."""

from __future__ import annotations

import itertools
import random
from collections.abc import Iterator
from dataclasses import dataclass
from typing import Literal

from tests.contract.support.service import CHALLENGE, REGISTER, VERIFY
from tests.keeper.support.faults import FINAL_AT_FIRST, TRANSIENT, answers
from tests.keeper.support.service import Fault

MINUTE = 60.0
HOUR = 3600.0
DAY = 86400.0

# Lengths of outages and their frequencies: short, usual, and longer than the life of tokens.
LENGTHS = ((5.0, 2 * MINUTE, 5), (5 * MINUTE, 3 * HOUR, 4), (4 * HOUR, 40 * HOUR, 1))
# With outages a third of the time, the intervals between them are twice as long.
GOOD_TO_BAD = 2.0
FAULTS: tuple[Fault, ...] = (
    *(fault for fault, _ in TRANSIENT.values()),
    *(fault for fault, _ in FINAL_AT_FIRST.values()),
    answers(429, Retry_After="86400"),
    answers(429, path=REGISTER, Retry_After="45"),
    answers(503, path=CHALLENGE),
    answers(500, path=VERIFY),
)

type Kind = Literal["away", "back", "era", "set clock", "refused"]


@dataclass(frozen=True)
class Change:
    """An event `at` seconds of true time.

    fault: of the server, or "away". only_some: whether half of the wallets are not affected.
    number: seconds by which the clock is set, or by which the server reaches an announced era too late.
    """

    at: float
    kind: Kind
    fault: Fault | None = None
    only_some: bool = False
    number: float = 0.0


def outages(chance: random.Random) -> Iterator[Change]:
    now = 0.0
    while True:
        low, high, _ = chance.choices(LENGTHS, [weight for *_, weight in LENGTHS])[0]
        length = chance.uniform(low, high)
        now += GOOD_TO_BAD * length * chance.uniform(0.6, 1.4)
        yield Change(now, "away", chance.choice(FAULTS), chance.random() < 0.15)
        now += length
        yield Change(now, "back")


def every(chance: random.Random, mean: float, kind: Kind, numbers: list[float]) -> Iterator[Change]:
    """Events of one kind at random times."""
    now = 0.0
    while True:
        now += chance.expovariate(1 / mean)
        yield Change(now, kind, number=chance.choice(numbers))


def drawn(seed: str, days: float) -> list[Change]:
    """All events in that many days."""
    chance = random.Random(seed)
    # The server reaches an era before or after it is announced.
    late = [0.0, 0.0, 0.0, 20.0, 10 * MINUTE, 3 * HOUR]
    jumps = [sign * size for sign in (-1, 1) for size in (1.0, MINUTE, HOUR, 6 * HOUR)]
    sources = [
        outages(chance),
        every(chance, 2 * DAY, "era", late),
        every(chance, 3 * DAY, "set clock", [*jumps, 20 * HOUR, -3 * DAY, 30 * HOUR]),
        every(chance, DAY, "refused", [0.0]),
    ]
    changes = [
        change
        for source in sources
        for change in itertools.takewhile(lambda one: one.at < days * DAY, source)
    ]
    return sorted(changes, key=lambda change: change.at)

"""What can be made to fail, and how."""

from __future__ import annotations

import dataclasses
import enum

# A limited number, or the interpreter would never end: it enters the handler of an exception only with memory
# for the place where it was raised, and tries for ever.
DROUGHT = 400


class Kind(enum.IntEnum):
    """In the order in which the native half numbers them."""

    PYTHON = 0
    MODULE = 1
    CURL = 2
    CALL = 3
    THREAD = 4


class Mode(enum.StrEnum):
    ONCE = "once"  # only the n-th
    ONWARD = "onward"  # the n-th and many after it
    PAIR = "pair"  # the n-th and one shortly after it
    LEAK = "leak"  # only the n-th, several times in one process


MODES = {
    Kind.PYTHON: (Mode.ONCE, Mode.ONWARD, Mode.PAIR, Mode.LEAK),
    Kind.MODULE: (Mode.ONCE, Mode.ONWARD, Mode.LEAK),
    Kind.CURL: (Mode.ONCE, Mode.ONWARD, Mode.LEAK),
    Kind.CALL: (Mode.ONCE, Mode.LEAK),
    Kind.THREAD: (Mode.ONCE, Mode.ONWARD, Mode.LEAK),
}


@dataclasses.dataclass(frozen=True)
class Run:
    """One run with one failure: a line of the report identifies it, and can repeat it."""

    scenario: str
    kind: Kind
    mode: Mode
    number: int
    also: int = 0  # of a pair: the number of the second failure
    way: int = 0  # of a call: which of its ways to fail

    def __str__(self) -> str:
        parts = [
            self.scenario,
            self.kind.name.lower(),
            self.mode,
            str(self.number),
            str(self.also),
            str(self.way),
        ]
        return ":".join(parts)

    @classmethod
    def parse(cls, text: str) -> Run:
        scenario, kind, mode, number, also, way = text.split(":")
        return cls(scenario, Kind[kind.upper()], Mode(mode), int(number), int(also), int(way))

    def plan(self) -> tuple[int, int, int, int, int]:
        """The arguments of the native half's `begin`."""
        last = self.number + (DROUGHT if self.mode is Mode.ONWARD else 0)
        return int(self.kind), self.number, last, self.also, self.way

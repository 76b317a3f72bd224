"""Makes the runs in worker processes and collects their results."""

from __future__ import annotations

import collections
import dataclasses
import json
import os
import random
import re
import subprocess
import sys
from collections.abc import Iterable, Iterator
from pathlib import Path
from typing import Any

from tessaline import auth

from .exemptions import Exemption, exemptions_of
from .frames import chains
from .kinds import MODES, Kind, Mode, Run

ROOT = Path(__file__).parents[2]
PACKAGE = Path(auth.__file__).parents[1]
AFTER_THE_LAST = 3  # runs in which nothing failed any more
MOST_WAYS = 128
MOST_TELLINGS = 20
WORKER = (sys.executable, "-m", "tests.torture.worker")


def native_half() -> Path:
    """The preloaded library: from the build tree of the module, else from the release build."""
    for build in (PACKAGE.parent, ROOT / "build/release"):
        library = build / "torture" / "_torture.so"
        if library.exists():
            return library
    raise FileNotFoundError("tests/torture is not built: make build")


def environment() -> dict[str, str]:
    library = native_half()
    path = os.pathsep.join(map(str, (PACKAGE, library.parent, ROOT, ROOT / "tests")))
    own = {
        "PYTHONPATH": path,
        "LD_PRELOAD": str(library),
        "PYTHONHASHSEED": "0",
    }
    return {**os.environ, **own}


class Worker:
    """A warmed-up process that makes one run after the other."""

    def __init__(self, address: str) -> None:
        self._process = subprocess.Popen(
            [*WORKER, address, "jobs"],
            env=environment(),
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            cwd=ROOT,
        )
        offered = json.loads(self._line("its start"))
        self.sweeps = [
            Sweep(scenario, kind, mode)
            for scenario, (repeats, *kinds) in offered.items()
            for kind in map(Kind, sorted(kinds))
            for mode in MODES[kind]
            if repeats or mode is not Mode.LEAK
        ]

    def make(self, run: Run) -> dict[str, Any]:
        assert self._process.stdin is not None and self._process.stdout is not None
        self._process.stdin.write(f"{run}\n")
        self._process.stdin.flush()
        return json.loads(self._line(str(run)))

    def _line(self, during: str) -> str:
        assert self._process.stdout is not None
        line = self._process.stdout.readline()
        if not line:
            raise RuntimeError(f"the worker ended with {self._process.wait()} during {during}")
        return line

    def __enter__(self) -> Worker:
        return self

    def __exit__(self, *_: object) -> None:
        assert self._process.stdin is not None and self._process.stdout is not None
        self._process.stdin.close()
        self._process.wait(30)
        self._process.stdout.close()


@dataclasses.dataclass(frozen=True)
class Sweep:
    """All runs of one scenario that differ only in the number of the failing call."""

    scenario: str
    kind: Kind
    mode: Mode

    def __str__(self) -> str:
        return f"{self.scenario}:{self.kind.name.lower()}:{self.mode}"

    def runs(self, worker: Worker, seed: int, most: int | None) -> Iterator[tuple[Run, dict[str, Any]]]:
        chance = random.Random(f"{seed} {self}")
        count = worker.make(Run(self.scenario, self.kind, Mode.ONCE, 0))["seen"]
        if most is not None and count > most:
            numbers: Iterable[int] = sorted(chance.sample(range(1, count + 1), most))
        else:
            # Some runs make more calls than others: the end is reached when several runs have no failure.
            numbers = range(1, 10 * count + 100)
        spared = 0
        for number in numbers:
            also = number + chance.randint(1, 40) if self.mode is Mode.PAIR else 0
            spared_here = True
            for run, result in self._ways(worker, number, also, chance, most):
                spared_here = spared_here and result.get("failed") == 0
                yield run, result
            spared = spared + 1 if spared_here else 0
            if spared >= AFTER_THE_LAST and number > count:
                return

    def _ways(
        self, worker: Worker, number: int, also: int, chance: random.Random, most: int | None
    ) -> Iterator[tuple[Run, dict[str, Any]]]:
        if self.kind is not Kind.CALL:
            run = Run(self.scenario, self.kind, self.mode, number, also)
            yield run, worker.make(run)
            return
        for way in range(MOST_WAYS):
            run = Run(self.scenario, self.kind, self.mode, number, also, way)
            result = worker.make(run)
            if result.get("no_such_way"):
                return
            yield run, result
            if result.get("failed") == 0:
                return
            if most is not None and way >= 2:
                return


def without_addresses(problems: list[str]) -> list[str]:
    return [re.sub(r"0x[0-9a-f]+", "0x", problem) for problem in problems]


@dataclasses.dataclass
class Report:
    teller: Worker  # repeats a run whose own frames do not explain it
    runs: collections.Counter[str] = dataclasses.field(default_factory=collections.Counter)
    failures: int = 0
    outcomes: collections.Counter[tuple[str, str]] = dataclasses.field(default_factory=collections.Counter)
    findings: list[tuple[Run, list[str], list[str]]] = dataclasses.field(default_factory=list)
    exempt: collections.Counter[str] = dataclasses.field(default_factory=collections.Counter)

    def add(self, run: Run, result: dict[str, Any]) -> None:
        self.runs[run.kind.name.lower()] += 1
        self.failures += result.get("failed", 1)
        self.outcomes[run.scenario, result["outcome"]] += 1
        if result["problems"]:
            self._judge(run, result)

    def _judge(self, run: Run, result: dict[str, Any]) -> None:
        stacks = chains(result.get("said", ""))
        covering: list[Exemption] | None = exemptions_of(run, result["problems"], stacks)
        if covering is None:
            stacks += chains(self._told(run, result).get("said", ""))
            covering = exemptions_of(run, result["problems"], stacks)
        if covering is None:
            self.findings.append((run, result["problems"], stacks))
        else:
            self.exempt.update({exemption.name for exemption in covering})

    def _told(self, run: Run, result: dict[str, Any]) -> dict[str, Any]:
        """The run again, with its frames. With races, it may take some repetitions to end in the same way."""
        for _ in range(MOST_TELLINGS):
            told = self.teller.make(run)
            if without_addresses(told["problems"]) == without_addresses(result["problems"]):
                break
        return told

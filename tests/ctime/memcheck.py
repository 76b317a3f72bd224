"""Runs a program under valgrind's memory checker and reads what the program counted."""

from __future__ import annotations

import os
import re
import subprocess
from collections.abc import Mapping
from dataclasses import dataclass
from pathlib import Path

OPTIONS = ("-s", "--error-limit=no", "--read-inline-info=yes", "--num-callers=30")
USED = re.compile(r"used_suppression: +([\d,]+) (\S+) ")


@dataclass(frozen=True)
class Outcome:
    """One check or control."""

    kind: str
    name: str
    marked: int
    reports: int


@dataclass(frozen=True)
class Watched:
    """The counts of a program, how often each public place was met, and the whole output of the checker."""

    outcomes: tuple[Outcome, ...]
    met: Mapping[str, int]
    log: str

    def of_kind(self, kind: str) -> list[Outcome]:
        return [outcome for outcome in self.outcomes if outcome.kind == kind]


def watch(
    command: list[str], suppressions: str, folder: Path, *, environment: dict[str, str] | None = None
) -> Watched:
    listed = folder / "public.supp"
    listed.write_text(suppressions)
    # No library of a sanitizer or tracer may be loaded before the checker's.
    base = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
    ended = subprocess.run(
        ["valgrind", *OPTIONS, f"--suppressions={listed}", *command],
        env=base | (environment or {}),
        capture_output=True,
        text=True,
        timeout=300,
        stdin=subprocess.DEVNULL,
    )
    if ended.returncode != 0:
        raise RuntimeError(f"{command} ended with {ended.returncode}\n{ended.stdout}\n{ended.stderr}")
    rows = [line.split("\t") for line in ended.stdout.splitlines()]
    outcomes = tuple(Outcome(kind, name, int(marked), int(reports)) for kind, name, marked, reports in rows)
    met = {name: int(count.replace(",", "")) for count, name in USED.findall(ended.stderr)}
    return Watched(outcomes, met, ended.stderr)

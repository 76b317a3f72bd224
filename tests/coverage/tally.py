"""The figures of one language, and the lines that were not reached, by function."""

from __future__ import annotations

import dataclasses
import itertools
from collections import defaultdict
from collections.abc import Iterable
from typing import Any


@dataclasses.dataclass
class Tally:
    lines: int = 0
    lines_reached: int = 0
    branches: int = 0
    branches_reached: int = 0
    unreached: dict[tuple[str, str], list[int]] = dataclasses.field(default_factory=lambda: defaultdict(list))

    @property
    def line_percent(self) -> float:
        # A run that has measured nothing has reached nothing.
        return 100 * self.lines_reached / self.lines if self.lines else 0.0

    def figure(self) -> str:
        percent = 100 * self.branches_reached / self.branches if self.branches else 100.0
        return f"{self.line_percent:.2f} % of {self.lines} lines, {percent:.2f} % of {self.branches} branches"


def native_tally(report: dict[str, Any]) -> Tally:
    """From the JSON report of gcovr."""
    tally = Tally()
    for file in report["files"]:
        lines: dict[int, list[dict[str, Any]]] = defaultdict(list)
        for line in file["lines"]:
            if not (line.get("gcovr/noncode") or line.get("gcovr/excluded")):
                lines[line["line_number"]].append(line)
        for number, instances in sorted(lines.items()):
            _count(tally, file["file"], number, instances)
    return tally


def _count(tally: Tally, file: str, number: int, instances: list[dict[str, Any]]) -> None:
    """A line of a template occurs once for each instance; one that reaches it is enough."""
    tally.lines += 1
    if any(line["count"] for line in instances):
        tally.lines_reached += 1
    else:
        tally.unreached[file, instances[0].get("function_name", "")].append(number)
    ways = [
        [branch["count"] > 0 for branch in line.get("branches", []) if not branch.get("gcovr/excluded")]
        for line in instances
    ]
    taken = [any(way) for way in itertools.zip_longest(*ways)]
    tally.branches += len(taken)
    tally.branches_reached += sum(taken)


def python_tally(report: dict[str, Any]) -> Tally:
    """From the JSON report of coverage.py."""
    totals = report["totals"]
    tally = Tally(
        totals["num_statements"], totals["covered_lines"], totals["num_branches"], totals["covered_branches"]
    )
    for file, measured in report["files"].items():
        for name, function in measured.get("functions", {}).items():
            if function["missing_lines"]:
                tally.unreached[file, name] += function["missing_lines"]
    return tally


def lines_in_ranges(lines: Iterable[int]) -> str:
    """[1, 2, 3, 7] as "1-3,7"."""
    ranges: list[list[int]] = []
    for line in sorted(lines):
        if ranges and line == ranges[-1][1] + 1:
            ranges[-1][1] = line
        else:
            ranges.append([line, line])
    return ",".join(str(first) if first == last else f"{first}-{last}" for first, last in ranges)

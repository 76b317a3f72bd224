"""Writes the results of wheel trials to FOLDER/wheels.json and their table to that folder's page "Where it
runs", and prints that table.

python -m tools.wheels.report FOLDER RESULT...
"""

from __future__ import annotations

import re
import sys
from pathlib import Path

from tools.chroots.report import Result, Table, passed, renew, seconds, step


def tag(result: Result) -> tuple[int, int]:
    """The Python that the wheel is for."""
    numbers = re.findall(r"-cp(3)(\d+)-", str(result["wheel"]))
    return int(numbers[0][0]), int(numbers[0][1])


def key(result: Result) -> tuple[str, tuple[int, int]]:
    return str(result["system"]), tag(result)


def ends(result: Result) -> str:
    outcome = step(result, "ends")
    text = outcome if outcome == "not run" else passed(result.get("tests", {}), outcome)
    return f"{text} (a sample)" if result.get("sample") else text


def row(result: Result) -> tuple[str, ...]:
    return (
        f"{result['called']}, {result['machine']}",
        str(result.get("libc", "")),
        str(result.get("python", ".".join(map(str, tag(result))))),
        step(result, "install"),
        step(result, "login"),
        ends(result),
        f"{result['runs']:,}" if "runs" in result else "",
        f"{seconds(result)}",
        str(result["date"]),
    )


WHEELS = Table(
    "wheels",
    ("system", "C library", "Python", "installs", "logs in", "ends: tests", "programs", "seconds", "on"),
    row,
    key,
)

if __name__ == "__main__":
    renew(WHEELS, Path(sys.argv[1]), [Path(name) for name in sys.argv[2:]])

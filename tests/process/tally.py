"""Sums up the reports of runs.py in one line."""

from __future__ import annotations

import json
import sys
from pathlib import Path


def summary(lines: list[str]) -> tuple[str, bool]:
    """The line, and whether every run ended as expected."""
    told = [json.loads(line) for line in lines]
    if not told:
        return "exits: nothing was run", False
    runs = sum(one[1] for one in told)
    slowest = max(told, key=lambda one: one[2])
    failures = sum(one[3] for one in told)
    fewest = min(one[1] for one in told)
    line = (
        f"exits: {len(told)} scenarios, at least {fewest} runs each, {runs} in all, "
        f"slowest {slowest[2]:.2f} s ({slowest[0]}), {failures} failures"
    )
    return line, failures == 0


if __name__ == "__main__":
    line, good = summary(Path(sys.argv[1]).read_text().splitlines())
    print(line)
    sys.exit(0 if good else 1)

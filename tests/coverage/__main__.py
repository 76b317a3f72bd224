"""Prints the coverage from the reports of gcovr and coverage.py; fails below the limit."""

from __future__ import annotations

import json
import sys
import tomllib
from pathlib import Path

from .tally import Tally, lines_in_ranges, native_tally, python_tally

LEAST_PERCENT = 98.0
ROOM = "src/tessaline/auth/"


def report(tally: Tally, listed: dict[str, dict[str, str]]) -> int:
    """Prints what is not reached; returns how many of its functions are not listed."""
    unlisted = 0
    for (file, function), lines in sorted(tally.unreached.items()):
        reasons = listed.get(file.removeprefix(ROOM), {}).items()
        reason = next((text for name, text in reasons if name in function), None)
        unlisted += reason is None
        print(f"{file}:{lines_in_ranges(lines)} in {function or 'no function'}: {reason or 'NOT LISTED'}")
    return unlisted


def main(tree: Path) -> int:
    native = native_tally(json.loads((tree / "native.json").read_text()))
    python = python_tally(json.loads((tree / "python.json").read_text()))
    listed = tomllib.loads((Path(__file__).parent / "unreached.toml").read_text())
    unlisted = sum(report(tally, listed) for tally in (native, python))
    print(f"C++: {native.figure()}; Python: {python.figure()}; {unlisted} functions not listed")
    return 0 if min(native.line_percent, python.line_percent) >= LEAST_PERCENT else 1


sys.exit(main(Path(sys.argv[1])))

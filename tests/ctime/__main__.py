"""Checks every build: python -m tests.ctime [another build tree with the programs of `wallet/`]..."""

from __future__ import annotations

import sys
from pathlib import Path

from . import builds, public
from .memcheck import Watched
from .verdict import faults, figures


def show(title: str, watched: Watched) -> None:
    print(f"\n{title}")
    for outcome in watched.outcomes:
        print(f"  {outcome.kind:8}{outcome.name:40}{outcome.marked:5} bytes{outcome.reports:5} reports")
    met = ", ".join(f"{name} {count}" for name, count in sorted(watched.met.items()))
    print(f"  public places met: {met}")


def main(trees: list[Path]) -> int:
    found = [f"-O3 of {name} is not what a release holds" for name in builds.differing_objects()]
    print("public places:")
    for place in public.PLACES:
        print(f"  {place.name}: {place.file}:{place.number()}: {place.why}")

    runs = []
    for tree in (builds.RELEASE, *trees):
        for level in builds.LEVELS:
            runs.append(
                (f"wallet room, {tree.name}, -{level}", builds.watch_room(level, tree), public.LINE_PLACES)
            )
    runs.append(("a manager in the interpreter", builds.watch_manager(), public.FUNCTION_PLACES))

    for title, watched, places in runs:
        show(title, watched)
        wrong = faults(watched, places)
        if wrong:
            print(watched.log)
        found += [f"{title}: {fault}" for fault in wrong]
    for fault in found:
        print(f"FAULT: {fault}")
    print(f"\nctime: {figures([watched for _, watched, _ in runs])}, {len(found)} faults")
    return 1 if found else 0


sys.exit(main([Path(name) for name in sys.argv[1:]]))

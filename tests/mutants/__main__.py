"""`make mutants`: plants each fault, and runs the tests that must find it."""

from __future__ import annotations

import argparse
import sys
import time

from .listed import Mutant, Place, locate, read_lists
from .runs import HANGS, Run, run_all
from .tree import build


def located(mutants: list[Mutant]) -> list[tuple[Mutant, Place]]:
    found = [(mutant, place) for mutant in mutants if (place := locate(mutant))]
    if lost := set(mutants) - {mutant for mutant, _ in found}:
        raise SystemExit("\n".join(sorted(f"not found, or more than once: {mutant}" for mutant in lost)))
    if len({mutant.number for mutant in mutants}) < len(mutants):
        raise SystemExit("a mutant is listed twice")
    return found


def main() -> int:
    parser = argparse.ArgumentParser(prog="mutants", description=__doc__)
    parser.add_argument("-k", metavar="TEXT", default="", help="only those whose file or text has this in it")
    parser.add_argument("--locate", action="store_true", help="only look whether all are in the sources")
    parser.add_argument("--verbose", action="store_true", help="say what has found each")
    options = parser.parse_args()
    begun = time.monotonic()
    every = located(read_lists())
    chosen = {one[0].number: one for one in every if options.k in f"{one[1].file} {one[0]}"}
    if options.locate:
        print(f"mutants: {len(every)}, all of them in the sources")
        return 0
    # All of them, whichever are selected: another selection then needs no build.
    build(every)
    found: list[str] = []

    def tell(run: Run, met: str) -> bool:
        if not run.number:
            print(f"without any fault: {met}\n" if met else "", end="", flush=True)
            return not met
        found.extend([met] if met else [])
        if options.verbose or not met:
            print(f"{met or 'SURVIVES'}  {chosen[run.number][0]}", flush=True)
        return True

    tests = sorted({test for mutant, _ in chosen.values() for test in mutant.tests})
    runs = [Run((test,)) for test in tests]
    run_all(runs + [Run(mutant.tests, number) for number, (mutant, _) in chosen.items()], tell)
    print(
        f"mutants: {len(chosen)}, {len(found)} found, {found.count(HANGS)} of them by hanging, "
        f"{time.monotonic() - begun:.0f} s"
    )
    return 0 if len(found) == len(chosen) > 0 else 1


if __name__ == "__main__":
    sys.exit(main())

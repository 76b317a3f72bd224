"""`python -m chaos`: flows in several processes, lives and a keeper in one each; figures at the end."""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
import time
from collections import Counter
from collections.abc import Iterable
from dataclasses import asdict

from .scenario import draw
from .watchdog import HUNG, Watchdog

FLOWS = 10_000
MANAGERS = 1_000
DAYS = 1_000
FLOW_PROCESSES = 2
FLOW_SECONDS = 60.0
LIFE_SECONDS = 120.0
KEEPER_DAYS = 100
KEEPER_SECONDS = 300.0
_FIGURES = "FIGURES "


def _arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="python -m chaos", description=__doc__, allow_abbrev=False)
    add = parser.add_argument
    add("--seed", type=int, default=1, help="of everything that is drawn (%(default)s)")
    add("--flows", type=int, default=FLOWS, metavar="N", help="how many flows (%(default)s)")
    add("--first", type=int, default=0, metavar="N", help="the number of the first flow (%(default)s)")
    add("--managers", type=int, default=MANAGERS, metavar="N", help="how many managers live (%(default)s)")
    add("--days", type=int, default=DAYS, metavar="N", help="how many days each (%(default)s)")
    add("--processes", type=int, default=FLOW_PROCESSES, metavar="N", help="processes of flows (%(default)s)")
    add("--flow", metavar="SEED:NUMBER", help="play this flow alone")
    add("--life", metavar="SEED:NUMBER", help="live this life alone")
    add("--keeper-days", type=int, default=KEEPER_DAYS, metavar="N", help="days of a keeper (%(default)s)")
    add("--keeper", metavar="SEED", help="live these days of a keeper alone")
    add("--part", help=argparse.SUPPRESS)
    return parser.parse_args()


def main() -> int:
    """Run the command line; returns the process's exit code."""
    given = _arguments()
    if given.flow is not None:
        return _play([given.flow])
    if given.life is not None:
        return _live([given.life], given.days)
    if given.keeper is not None:
        return _keep(given.keeper, given.keeper_days)
    if given.part == "keeper":
        return _keep(str(given.seed), given.keeper_days)
    if given.part == "lives":
        return _live([f"{given.seed}:{number}" for number in range(given.managers)], given.days)
    if given.part is not None:
        share = range(given.first + int(given.part), given.first + given.flows, given.processes)
        return _play(f"{given.seed}:{number}" for number in share)
    return _run_all(given)


def _play(seeds: Iterable[str]) -> int:
    from .run_flows import run
    from .stage import Stage

    with Stage() as stage:
        figures = run((draw(*map(int, seed.split(":"))) for seed in seeds), stage, Watchdog(FLOW_SECONDS))
    print(_FIGURES + json.dumps(asdict(figures)), flush=True)
    return int(figures.violations > 0)


def _live(seeds: list[str], days: int) -> int:
    from .run_lives import run

    figures = run(seeds, days, Watchdog(LIFE_SECONDS))
    print(_FIGURES + json.dumps(asdict(figures)), flush=True)
    return int(figures.violations > 0)


def _keep(seed: str, days: int) -> int:
    from .run_keeper import run

    figures = run(seed, days, Watchdog(KEEPER_SECONDS))
    print(_FIGURES + json.dumps(asdict(figures)), flush=True)
    return int(figures.violations > 0)


def _run_all(given: argparse.Namespace) -> int:
    began = time.monotonic()
    parts = [str(number) for number in range(given.processes)] if given.flows else []
    parts += ["lives"] if given.managers and given.days else []
    parts += ["keeper"] if given.keeper_days else []
    command = [sys.executable, "-m", "chaos", *sys.argv[1:], "--part"]
    children = [(part, subprocess.Popen([*command, part], stdout=subprocess.PIPE)) for part in parts]
    total: Counter[str] = Counter()
    hangs = failures = 0
    for part, child in children:
        output = child.communicate()[0].decode()
        lines = output.splitlines()
        if not (lines and lines[-1].startswith(_FIGURES)):
            # A part without a final line has not passed.
            hangs += child.returncode == HUNG
            failures += 1
            print(f"part {part} ended with {child.returncode}:\n{output}", file=sys.stderr)
            continue
        figures = json.loads(lines[-1].removeprefix(_FIGURES))
        print("\n".join([*lines[:-1], f"part {part}: {figures}"]), flush=True)
        total.update(figures)
    violations = total["violations"] + failures - hangs
    print(
        f"chaos: seed {given.seed}, {time.monotonic() - began:.0f} s: {total['flows']} flows, "
        f"{total['requests']} requests, {total['days']} simulated days, "
        f"{hangs} hangs, {violations} violations"
    )
    return int(hangs + violations > 0)


if __name__ == "__main__":
    sys.exit(main())

"""Runs every benchmark and writes docs/benchmarks: python -m benchmarks [--rounds N] [--only TITLE]."""

from __future__ import annotations

import argparse
import sys
import time
from collections.abc import Callable
from functools import partial

from .places import on_one_core, use_build

use_build()

from . import (  # noqa: E402  they import the build that was just chosen
    aio,
    crowds,
    footprint,
    keeper,
    logins,
    network,
    network_era,
    network_fleets,
    wheel,
)
from .micro_figures import micro_group  # noqa: E402
from .ratios import Figure, Group  # noqa: E402
from .report import write_report  # noqa: E402

Measure = Callable[[int], Group]


def line(figure: Figure) -> str:
    measured = f"  {figure.subject}: {figure.ratio.median:.3g} {figure.unit}"
    if figure.target is None:
        return measured
    sign = "<=" if figure.at_most else ">="
    verdict = "reached" if figure.reached else "MISSED"
    return f"{measured} ({sign} {figure.target:g}) {verdict}"


def alone(measure: Measure) -> Measure:
    def on_one(rounds: int) -> Group:
        with on_one_core():
            return measure(rounds)

    return on_one


def main() -> int:
    parser = argparse.ArgumentParser(prog="make bench", description=__doc__)
    parser.add_argument("--rounds", type=int, default=9, help="measurements of each case (default: 9)")
    parser.add_argument(
        "--only", default="", help="only groups whose title holds this text; writes no report"
    )
    given = parser.parse_args()

    measures: dict[str, Measure] = {
        "get_token()": partial(micro_group, "get_token"),
        "get_token() of a keeper": partial(micro_group, "get_token of a keeper"),
        "threads": crowds.threads_at_once,
        "together": crowds.single_flights,
        "waking": crowds.woken_waiters,
        "signature 32 B": partial(micro_group, "signature 32 B"),
        "signature 16 KiB": partial(micro_group, "signature 16 KiB"),
        "construction": partial(micro_group, "construction"),
        "POST wall": alone(partial(micro_group, "POST wall")),
        "POST CPU": alone(partial(micro_group, "POST CPU")),
        "POST two cores": partial(micro_group, "POST wall", title="POST on two cores"),
        "HTTPS": alone(logins.login_over_https),
        "memory login": logins.login_in_memory,
        "import": footprint.importing,
        "memory": footprint.memory,
        "era": crowds.era_of_a_fleet,
        "keeper": keeper.era_of_a_keeper,
        "event loop": aio.requests_of_a_loop,
        "growth": alone(footprint.growth),
        "network connection": alone(network.new_connections),
        "network first": alone(network.first_connection),
        "network resumption": alone(network.resumed_connection),
        "network origins": alone(network_fleets.origins_one_by_one),
        "network threads": network_fleets.origins_at_once,
        "network crowd": network_fleets.crowd_at_one_server,
        "network memory": network_fleets.crowd_memory,
        "network era": network_era.era_of_a_fleet,
        "wheel import": wheel.importing,
        "wheel first": alone(wheel.first_login),
    }
    begin = time.monotonic()
    groups = []
    for title, measure in measures.items():
        if given.only not in title:
            continue
        group = measure(given.rounds)
        groups.append(group)
        print(group.title, *map(line, group.figures), sep="\n", flush=True)
    figures = [figure for group in groups for figure in group.figures]
    if not given.only:
        write_report(groups, rounds=given.rounds)
    missed = sum(not figure.reached for figure in figures)
    print(f"{len(figures)} figures, {missed} missed, in {time.monotonic() - begin:.0f} s")
    return 0


if __name__ == "__main__":
    sys.exit(main())

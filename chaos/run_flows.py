"""Many flows, one after the other, in one process."""

from __future__ import annotations

import sys
import traceback
from collections.abc import Iterable
from dataclasses import dataclass

from tests.integration.support import descriptors

from .flow import Flow
from .scenario import Scenario
from .stage import Stage
from .watchdog import Watchdog

_MOST_VIOLATIONS = 20
_REPORTED = 500


@dataclass
class Figures:
    """The results of the flows."""

    flows: int = 0
    requests: int = 0
    violations: int = 0


def run(scenarios: Iterable[Scenario], stage: Stage, watchdog: Watchdog) -> Figures:
    """Run the scenarios; prints each violation on standard error with the command that repeats it."""
    figures = Figures()
    before = descriptors()
    for scenario in scenarios:
        watchdog.watch(f"{scenario}\n{command(scenario)}")
        flow = None
        try:
            flow = Flow(stage, scenario, before)
            flow.play()
        except Exception:
            figures.violations += 1
            print(f"VIOLATION in {scenario}\n{command(scenario)}", file=sys.stderr)
            traceback.print_exc()
        figures.flows += 1
        if figures.flows % _REPORTED == 0:
            print(f"  {figures}", flush=True)
        figures.requests += flow.requests if flow is not None else 0
        if figures.violations >= _MOST_VIOLATIONS:
            break
    watchdog.rest()
    if stage.said:
        figures.violations += 1
        print(f"VIOLATION: the development server said {stage.said}", file=sys.stderr)
    return figures


def command(scenario: Scenario) -> str:
    """The command that repeats the flow."""
    return f'make chaos ARGS="--flow {scenario.seed}"'

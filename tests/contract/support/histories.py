"""Random histories of a machine with rules, the same in every run."""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any

from hypothesis import HealthCheck, settings
from hypothesis.stateful import run_state_machine_as_test


def play(machine: Any, histories: int, steps: int, worth_seeing: Iterable[str]) -> None:
    """Each of those things must have occurred a few times: `machine.seen` counts them."""
    machine.seen.clear()
    run_state_machine_as_test(
        machine,
        settings=settings(
            max_examples=histories,
            stateful_step_count=steps,
            derandomize=True,
            database=None,
            deadline=None,
            suppress_health_check=list(HealthCheck),
        ),
    )
    assert {what: machine.seen[what] for what in worth_seeing if machine.seen[what] < 3} == {}

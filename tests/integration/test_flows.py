"""Every fault of the server at every endpoint, run as by `make chaos`: all results match its model.

A flow has callers that wait, come early, or during which an era is announced. Stalls are left to chaos.
"""

from __future__ import annotations

from collections.abc import Iterator
from itertools import count, islice

import pytest

import canary
from chaos.flow import Flow
from chaos.scenario import Scenario, draw, product_size
from chaos.stage import Stage

from .support import descriptors

SEED = 20
AT_RANDOM = 25


def stalls(scenario: Scenario) -> bool:
    return any(fault.stalls for faults in scenario.plan.values() for fault in faults)


def each_fault_at_each_endpoint() -> Iterator[Scenario]:
    """The kind of flow, the scheme, and whether it happens once or always, are drawn at random."""
    seen = set()
    for scenario in (draw(SEED, number) for number in range(product_size())):
        ((endpoint, (fault, *_)),) = scenario.plan.items()
        if not fault.stalls and (fault.name, endpoint) not in seen:
            seen.add((fault.name, endpoint))
            yield scenario


def several_in_a_row() -> Iterator[Scenario]:
    drawn = (draw(SEED, product_size() + number) for number in count())
    return islice((scenario for scenario in drawn if not stalls(scenario)), AT_RANDOM)


@pytest.fixture(scope="module")
def stage() -> Iterator[Stage]:
    with Stage() as stage:
        yield stage
        assert stage.said == ""


@pytest.mark.parametrize("scenario", [*each_fault_at_each_endpoint(), *several_in_a_row()], ids=str)
def test_it_goes_as_foretold(scenario: Scenario, stage: Stage) -> None:
    flow = Flow(stage, scenario, descriptors())
    manager = flow._actor.manager
    canary.plant("key", manager._private_key)
    canary.watch(manager)
    flow.play()

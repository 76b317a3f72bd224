"""A part of `make torture`, short enough for every test run."""

from __future__ import annotations

import random
from collections.abc import Iterator

import pytest

from tests.sanitized import SANITIZER

from .driver import Report, Sweep, Worker
from .kinds import Kind, Mode, Run
from .loopback import Loopback

SEED = 20
SWEEPS, MOST = 16, 1  # sweeps drawn, and runs of each

if SANITIZER:
    pytest.skip("what makes allocations fail would stand before the sanitizer's own", allow_module_level=True)


@pytest.fixture(scope="module")
def address() -> Iterator[str]:
    with Loopback() as address:
        yield address


@pytest.fixture(scope="module")
def worker(address: str) -> Iterator[Worker]:
    with Worker(address) as worker:
        yield worker


def findings(worker: Worker, sweep: Sweep, most: int | None = None) -> tuple[Report, list[str]]:
    report = Report(worker)
    for run, result in sweep.runs(worker, SEED, most):
        report.add(run, result)
    return report, [f"{run}: {problems}" for run, problems, _ in report.findings]


def test_what_is_to_fail_fails(worker: Worker) -> None:
    result = worker.make(Run("construct", Kind.PYTHON, Mode.ONCE, 1))
    assert (result["outcome"], result["failed"], result["problems"]) == ("MemoryError", 1, [])
    spared = worker.make(Run("construct", Kind.PYTHON, Mode.ONCE, 0))
    assert (spared["outcome"], spared["failed"], spared["problems"]) == ("success", 0, [])
    assert spared["seen"] > 50


def test_calls_of_the_library_that_makes_requests_can_fail(worker: Worker) -> None:
    spared = worker.make(Run("network", Kind.CALL, Mode.ONCE, 0))
    assert (spared["outcome"], spared["problems"]) == ("success", [])
    assert spared["seen"] > 100
    refused = worker.make(Run("network", Kind.CALL, Mode.ONCE, 20))
    assert (refused["failed"], refused["problems"]) == (1, [])
    assert refused["what"].startswith("curl_")


def test_a_leak_is_found(worker: Worker) -> None:
    assert worker.make(Run("leaking", Kind.PYTHON, Mode.LEAK, 0))["problems"]


def test_a_crash_is_told(worker: Worker) -> None:
    report = Report(worker)
    run = Run("crashing", Kind.PYTHON, Mode.ONCE, 1)
    report.add(run, worker.make(run))
    ((_, problems, stacks),) = report.findings
    assert problems == ["the process ended with -6"]
    assert any("abort" in stack for stack in stacks)


WHOLE = (
    Sweep("token-due", Kind.PYTHON, Mode.ONCE),
    Sweep("construct", Kind.CALL, Mode.ONCE),
    Sweep("refresh", Kind.MODULE, Mode.ONCE),
    Sweep("era", Kind.THREAD, Mode.ONCE),
    Sweep("close", Kind.PYTHON, Mode.ONWARD),
)


@pytest.mark.parametrize("sweep", WHOLE, ids=str)
def test_every_failure_leaves_the_manager_usable_or_closed(sweep: Sweep, worker: Worker) -> None:
    report, found = findings(worker, sweep)
    assert report.runs
    assert found == []


@pytest.mark.parametrize("scenario", ["thread-bootstrap", "refresh-thread"])
@pytest.mark.parametrize("number", range(3, 7))
def test_a_thread_that_fails_at_its_start_leaves_nobody_waiting(
    scenario: str, number: int, worker: Worker
) -> None:
    report = Report(worker)
    run = Run(scenario, Kind.PYTHON, Mode.ONCE, number)
    report.add(run, worker.make(run))
    assert report.findings == []


@pytest.mark.parametrize("number", range(5, 11))
def test_a_refresh_that_finds_no_memory_for_a_while_is_made_later(number: int, worker: Worker) -> None:
    report = Report(worker)
    run = Run("refresh-thread", Kind.PYTHON, Mode.ONWARD, number)
    report.add(run, worker.make(run))
    assert report.findings == []


def test_some_runs_of_some_sweeps(worker: Worker) -> None:
    found = []
    for sweep in random.Random(SEED).sample(worker.sweeps, SWEEPS):
        report, of_sweep = findings(worker, sweep, MOST)
        assert report.runs, sweep
        found += of_sweep
    assert found == []

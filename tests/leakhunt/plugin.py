"""The pytest plugin: each test is repeated, including its own fixtures, and may leave nothing behind.

A test that seems to leak is repeated many more times before it is reported: it may be a cache, or chance.
"""

from __future__ import annotations

import gc
import json
import os
from array import array
from collections.abc import Callable, Sequence
from itertools import pairwise
from pathlib import Path
from typing import Any

import pytest
from _pytest.fixtures import FixtureDef
from _pytest.reports import TestReport
from _pytest.runner import runtestprotocol

from . import caches, origin
from .gauges import BLOCKS, Gauges
from .verdict import leaked_per_repetition, may_leak

WARM_UP = 2
MEASURED = 3
# Growth in two series, the second one longer, is a leak.
CONFIRMING = (20, 40)
PROCESS_MARK = "process"
COUNTS = ("repeated", "repetitions", "suspected", "leaking", "failed", "elsewhere")


def pytest_addoption(parser: pytest.Parser) -> None:
    group = parser.getgroup("leakhunt")
    group.addoption("--leakhunt-shared", help="folder in which several runs agree on who does which test")
    group.addoption("--leakhunt-result", help="file for the counts, as JSON")


def pytest_configure(config: pytest.Config) -> None:
    config.pluginmanager.register(Hunt(config), "leakhunt-hunt")


class Hunt:
    def __init__(self, config: pytest.Config) -> None:
        shared = config.getoption("--leakhunt-shared")
        result = config.getoption("--leakhunt-result")
        self._shared = Path(shared) if shared else None
        self._result = Path(result) if result else None
        self._gauges = Gauges()
        rows = WARM_UP + MEASURED + sum(CONFIRMING)
        self._rows = [array("q", bytes(8 * len(self._gauges.all))) for _ in range(rows)]
        self.counts = dict.fromkeys(COUNTS, 0)

    def pytest_collection_modifyitems(self, config: pytest.Config, items: list[pytest.Item]) -> None:
        elsewhere = [item for item in items if item.get_closest_marker(PROCESS_MARK)]
        items[:] = [item for item in items if not item.get_closest_marker(PROCESS_MARK)]
        config.hook.pytest_deselected(items=elsewhere)
        self.counts["elsewhere"] = len(elsewhere)

    def pytest_collection_finish(self) -> None:
        from canary import registry  # importable once tests were collected

        registry.at_rest = True  # it keeps what it plants
        # Objects from before the first test need not be scanned after each.
        caches.clear()
        self._finalizers = _Finalizers()
        gc.freeze()

    @pytest.hookimpl(tryfirst=True)
    def pytest_runtest_protocol(self, item: pytest.Item, nextitem: pytest.Item | None) -> bool:
        if not self._is_ours(item):
            _tear_down_to(item, nextitem)
            return True
        item.ihook.pytest_runtest_logstart(nodeid=item.nodeid, location=item.location)
        for report in [*self._hunt(item), *_end(item, nextitem)]:
            item.ihook.pytest_runtest_logreport(report=report)
        item.ihook.pytest_runtest_logfinish(nodeid=item.nodeid, location=item.location)
        return True

    def pytest_sessionfinish(self) -> None:
        if self._result is not None:
            self._result.write_text(json.dumps(self.counts))

    def pytest_terminal_summary(self, terminalreporter: Any) -> None:
        terminalreporter.write_line("leakhunt: " + ", ".join(f"{k} {v}" for k, v in self.counts.items()))

    def _is_ours(self, item: pytest.Item) -> bool:
        """The first to arrive runs the test."""
        if self._shared is None:
            return True
        number = item.session.items.index(item)
        try:
            os.close(os.open(self._shared / str(number), os.O_CREAT | os.O_EXCL))
        except FileExistsError:
            return False
        return True

    def _hunt(self, item: pytest.Item) -> list[TestReport]:
        """The reports of the first time or, if the result differs later, of that time."""
        first = _run(item)
        if not all(report.passed for report in first):
            self.counts["failed"] += any(report.failed for report in first)
            return first
        self.counts["repeated"] += 1
        self._finalizers.keep()
        self._read(0)

        def repeat(begin: int, end: int) -> list[TestReport]:
            for number in range(begin, end):
                reports = _run(item)
                if not all(report.passed for report in reports):
                    self.counts["failed"] += 1
                    return _in_repetition(number, reports)
                del reports
                self._forget(item)
                self._read(number)
            return []

        screening = WARM_UP + MEASURED
        if broken := repeat(1, screening):
            return broken
        if not self._columns(WARM_UP - 1, screening, may_leak):
            return first
        self.counts["suspected"] += 1
        end = screening
        leaks = set(range(len(self._gauges.all)))
        for more in CONFIRMING:
            begin, end = end, end + more
            if broken := repeat(begin, end):
                return broken
            leaks &= self._columns(begin, end, leaked_per_repetition)
            if not leaks:
                return first
        self.counts["leaking"] += 1
        said = [self._describe(column) for column in sorted(leaks)]
        if BLOCKS in leaks:
            said += origin.places(lambda: self._forget(item, _run(item)))
        _fail(first, "\n".join(said))
        return first

    def _forget(self, item: pytest.Item, _reports: object = None) -> None:
        """What pytest keeps for each repetition."""
        self._finalizers.restore()
        item._report_sections.clear()

    def _read(self, number: int) -> None:
        self.counts["repetitions"] += 1
        self._gauges.read(self._rows[number], self._rows[number - 1] if number else None)

    def _columns(self, begin: int, end: int, grows: Callable[[Sequence[int], int], float]) -> set[int]:
        return {
            column
            for column, gauge in enumerate(self._gauges.all)
            if grows([row[column] for row in self._rows[begin:end]], gauge.least)
        }

    def _describe(self, column: int) -> str:
        gauge = self._gauges.all[column]
        values = [row[column] for row in self._rows]
        rate = leaked_per_repetition(values[-CONFIRMING[-1] :], gauge.least)
        steps = [after - before for before, after in pairwise(values)]
        return f"leaks {gauge.name}: {rate:g} in each repetition; from one to the next: {steps}"


class _Finalizers:
    """For each test pytest adds to a shared fixture that the test's fixtures end before it."""

    def __init__(self) -> None:
        self._fixtures = [thing for thing in gc.get_objects() if isinstance(thing, FixtureDef)]
        self._lengths: list[int] = []

    def keep(self) -> None:
        self._lengths = [len(definition._finalizers) for definition in self._fixtures]

    def restore(self) -> None:
        for definition, length in zip(self._fixtures, self._lengths, strict=True):
            del definition._finalizers[length:]


def _run(item: pytest.Item) -> list[TestReport]:
    # With the parent as the next item: the test's own fixtures end, shared ones stay.
    return runtestprotocol(item, nextitem=item.parent, log=False)  # type: ignore[arg-type]


def _in_repetition(number: int, reports: list[TestReport]) -> list[TestReport]:
    for report in reports:
        report.sections.append(("leakhunt", f"in repetition {number}"))
    return reports


def _fail(reports: list[TestReport], text: str) -> None:
    for report in reports:
        if report.when == "call":
            report.outcome = "failed"
            report.longrepr = text


def _tear_down_to(item: pytest.Item, nextitem: pytest.Item | None) -> None:
    item.session._setupstate.teardown_exact(nextitem)


def _end(item: pytest.Item, nextitem: pytest.Item | None) -> list[TestReport]:
    """End the fixtures that the next test does not share."""
    call = pytest.CallInfo.from_call(lambda: _tear_down_to(item, nextitem), when="teardown")
    if call.excinfo is None:
        return []
    return [TestReport.from_item_and_call(item, call)]

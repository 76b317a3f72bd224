"""Evaluates alert rules as Prometheus does, in the few forms that the documentation uses."""

from __future__ import annotations

import math
import operator
import re
from collections.abc import Iterable
from dataclasses import dataclass, field
from typing import Any

from prometheus_client.metrics_core import Metric

_FORM = re.compile(
    r"(?P<absent>absent\()?(?P<metric>\w+)(?:\{(?P<label>\w+)=\"(?P<value>[^\"]*)\"\})?(?(absent)\))"
    r"(?P<age> - time\(\))?(?: (?P<sign><|==) (?P<number>\d+(?: \* \d+)*))?"
)
_SIGNS = {"<": operator.lt, "==": operator.eq}
_UNITS = {"s": 1.0, "m": 60.0, "h": 3600.0}


@dataclass
class Rule:
    """An alerting rule; remembers for how long its expression has been true for each series."""

    name: str
    expression: str
    seconds: float
    _since: dict[Any, float] = field(default_factory=dict)

    def __post_init__(self) -> None:
        form = _FORM.fullmatch(self.expression)
        assert form is not None, f"{self.name}: an expression of another form: {self.expression}"
        self._form = form

    @property
    def threshold(self) -> float:
        return math.prod(float(factor) for factor in self._form["number"].split(" * "))

    def fires(self, metrics: Iterable[Metric], now: float) -> bool:
        true_of = self._true_of(metrics, now)
        self._since = {series: self._since.get(series, now) for series in true_of}
        return any(now - since >= self.seconds for since in self._since.values())

    def _true_of(self, metrics: Iterable[Metric], now: float) -> set[Any]:
        form = self._form
        found = {
            tuple(sorted(sample.labels.items())): sample.value - (now if form["age"] else 0.0)
            for metric in metrics
            for sample in metric.samples
            if sample.name == form["metric"]
            and (not form["label"] or sample.labels[form["label"]] == form["value"])
        }
        if form["absent"]:
            return set() if found else {()}
        return {series for series, value in found.items() if _SIGNS[form["sign"]](value, self.threshold)}


def rules_of(file: Any) -> dict[str, Rule]:
    """The rules of a parsed file of rules, by name."""
    return {
        rule["alert"]: Rule(rule["alert"], rule["expr"], seconds_of(rule.get("for", "0s")))
        for group in file["groups"]
        for rule in group["rules"]
    }


def seconds_of(duration: str) -> float:
    return float(duration[:-1]) * _UNITS[duration[-1]]

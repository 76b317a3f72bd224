"""Figures as ratios of alternating measurements in one run."""

from __future__ import annotations

import statistics
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass

Samples = Mapping[str, Sequence[float]]


def in_turns(measures: Mapping[str, Callable[[], float]], rounds: int) -> dict[str, list[float]]:
    """Measures each in turn, `rounds` times, after a warm-up round."""
    samples: dict[str, list[float]] = {name: [] for name in measures}
    for turn in range(rounds + 1):
        for name, measure in measures.items():
            value = measure()
            if turn > 0:
                samples[name].append(value)
    return samples


@dataclass(frozen=True)
class Ratio:
    """Median of the ratios of neighbouring measurements, with the quartiles around it."""

    median: float
    low: float
    high: float

    @classmethod
    def of(cls, ones: Sequence[float], others: Sequence[float]) -> Ratio:
        return cls.around([one / other for one, other in zip(ones, others, strict=True)])

    @classmethod
    def around(cls, values: Sequence[float]) -> Ratio:
        if len(values) == 1:
            return cls(values[0], values[0], values[0])
        low, median, high = statistics.quantiles(values, n=4, method="inclusive")
        return cls(median, low, high)


@dataclass(frozen=True)
class Figure:
    """One line of the report: what was measured, against what, and its limit."""

    subject: str
    unit: str
    ratio: Ratio
    target: float | None  # none: only for comparison with the other figures
    at_most: bool = True
    note: str = ""

    @property
    def reached(self) -> bool:
        if self.target is None:
            return True
        return self.ratio.median <= self.target if self.at_most else self.ratio.median >= self.target


@dataclass(frozen=True)
class Group:
    """Figures that were measured together, with the medians of all measurements (in seconds by default)."""

    title: str
    figures: Sequence[Figure]
    medians: Mapping[str, float]
    unit: str = "s"
    note: str = ""


def medians_of(samples: Samples) -> dict[str, float]:
    return {name: statistics.median(values) for name, values in samples.items()}

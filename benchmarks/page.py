"""The page of figures, generated from the measurements: charts first, then all figures, then explanations."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any

from docsite.figures.bars import CHARTS, FOLDER, measured

from .ratios import Figure, Ratio

UNITS = ("µs", "ms", "KiB", "MiB")
SMALL = 0.5


def amount(value: float, unit: str) -> str:
    """A ratio in words, or a value in its own unit."""
    if unit in UNITS:
        return f"{value:.3g} {unit}"
    if value > SMALL:
        return f"{value:.3g}"
    return f"1/{1 / value:,.0f}" if value < 0.1 else f"1/{1 / value:.2g}"


def figure_of(told: Mapping[str, Any]) -> Figure:
    ratio = Ratio(told["median"], told["low"], told["high"])
    return Figure(told["subject"], told["unit"], ratio, told["target"], told["at_most"], told["note"])


def row(figure: Figure) -> str:
    unit, target = figure.unit, figure.target
    sign = "≤" if figure.at_most else "≥"
    bound = "" if target is None else f"{sign} {amount(target, unit)}"
    verdict = "" if figure.reached else " **missed**"
    beside = "" if unit in UNITS else unit
    return f"| {figure.subject} | {beside} | {amount(figure.ratio.median, unit)} | {bound}{verdict} |"


def page(content: Mapping[str, Any]) -> str:
    charts = [f"![{chart.title}]({chart.name}.svg)\n" for chart in CHARTS]
    figures = [figure_of(told) for told in content["figures"]]
    notes = [f"- {figure.subject}: {figure.note}." for figure in figures if figure.note]
    lines = [
        "# Benchmarks",
        "",
        charts[0],
        f"`make bench` measured these figures on {content['date']}: {content['machine']}. "
        f"Each is the median of {content['rounds']} rounds, in which the programs took turns. "
        "Shorter bars are better.",
        "",
        *charts[1:],
        (FOLDER / "explanation.md").read_text(),
        "## All figures",
        "",
        "The result is a ratio: 1/24 means that the first takes a 24th of the time (or memory, or "
        "connections) of the second, or has a 24th of its throughput. If a line compares nothing, the result "
        "has a unit. The limit is what the project demands of itself. `measured.json` next to this page has "
        "the quartiles too.",
        "",
        "| what | compared with | result | limit |",
        "|---|---|---|---|",
        *map(row, figures),
        "",
        *notes,
    ]
    return "\n".join(lines).rstrip() + "\n"


def write_page() -> None:
    (FOLDER / "README.md").write_text(page(measured()))


if __name__ == "__main__":
    write_page()

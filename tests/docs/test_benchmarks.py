"""The page of figures shows what was measured, and each chart compares different things."""

from __future__ import annotations

import re

import pytest

from benchmarks import page
from benchmarks.ratios import Figure, Ratio
from docsite.figures import bars

from .pages import DOCS

pytestmark = pytest.mark.process

README = bars.FOLDER / "README.md"
MEASURED = bars.measured()


def test_the_page_is_made_of_what_was_measured() -> None:
    assert README.read_text() == page.page(MEASURED)


def test_it_begins_with_a_picture() -> None:
    assert re.match(r"# Benchmarks\n\n!\[[^]]+\]\(a-token\.svg\)\n", README.read_text())


@pytest.mark.parametrize("chart", bars.CHARTS, ids=lambda chart: chart.name)
def test_the_bars_of_a_chart_differ_at_sight(chart: bars.Chart) -> None:
    values = [value for _, value, _ in bars.values(chart, MEASURED)]
    assert len(values) >= 2
    assert max(values) >= 1.25 * min(values)


@pytest.mark.parametrize("chart", bars.CHARTS, ids=lambda chart: chart.name)
def test_a_chart_shows_what_was_measured(chart: bars.Chart) -> None:
    drawn = (bars.FOLDER / f"{chart.name}.svg").read_text()
    for label, group, name in chart.bars:
        value = MEASURED["groups"][group]["medians"][name]
        assert f">{label}</text>" in drawn
        assert f">{bars.readable(value, 's')}</text>" in drawn


def test_the_pages_tell_the_overhead_in_an_event_loop() -> None:
    figures = [figure for figure in MEASURED["figures"] if figure["subject"].startswith("httpx request")]
    *hooks, pool = [round(100 * (figure["median"] - 1)) for figure in figures]
    assert len(hooks) == 3
    text = " ".join((DOCS / "asyncio.md").read_text().split())
    assert f"takes {min(hooks)} to {max(hooks)} % longer" in text
    assert f"loop's pool takes {pool} % longer" in text
    assert f"`httpx.AsyncClient`, {min(hooks)} to {max(hooks)} %" in (DOCS / "integrations.md").read_text()


@pytest.mark.parametrize(
    ("value", "unit", "text"),
    [
        (0.00449, "botocore", "1/223"),
        (0.371, "urllib", "1/2.7"),
        (0.954, "http.client", "0.954"),
        (2.7, "a call", "2.7"),
        (113.0, "µs", "113 µs"),
    ],
)
def test_a_ratio_is_told_as_a_person_would(value: float, unit: str, text: str) -> None:
    assert page.amount(value, unit) == text


@pytest.mark.parametrize(("at_most", "missed"), [(True, False), (False, True)])
def test_a_missed_limit_is_marked(at_most: bool, missed: bool) -> None:
    figure = Figure("a", "b", Ratio.around([1.0]), 1.5, at_most)
    assert ("**missed**" in page.row(figure)) == missed


@pytest.mark.parametrize(
    ("value", "text"), [(2.18e-08, "21.8 ns"), (4.87e-06, "4.87 µs"), (0.00194, "1.94 ms"), (2.0, "2 s")]
)
def test_times_are_readable(value: float, text: str) -> None:
    assert bars.readable(value, "s") == text

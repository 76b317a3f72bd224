"""The README's example runs, and its figures are those that were measured last."""

from __future__ import annotations

import re
import secrets
from pathlib import Path
from typing import Any

import pytest

from devserver.testing import DevServer
from docsite.figures import bars

from .pages import DOCS, code_blocks, rows, run, section

pytestmark = pytest.mark.process

README = DOCS.parent / "README.md"
A_SCREEN_AND_A_HALF = 80  # lines


def linked_files(page: Path) -> list[str]:
    return re.findall(r"\]\(([^)#]+?)\)", page.read_text())


def test_the_example_runs(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("WALLET_KEY", secrets.token_hex(32))
    (block,) = code_blocks(README)
    names: dict[str, Any] = {}
    with DevServer() as server:
        run(block, names, block.text.replace("https://service.example", server.url))
        assert server.state()["counts"]["verify"] == 1
    assert names["token"].count(".") == 2


def test_the_figures_are_those_that_were_measured_last() -> None:
    measured = bars.measured()
    known = {
        bars.readable(median, group["unit"])
        for group in measured["groups"].values()
        for median in group["medians"].values()
    }
    shown = re.findall(r"[\d.]+ (?:ns|µs|ms)\b", section(README, "How fast"))
    assert len(shown) >= 9
    assert [text for text in shown if text not in known] == []
    (date,) = re.findall(r"`make bench` on (\d{4}-\d\d-\d\d)", README.read_text())
    assert date == measured["date"]


def test_the_first_row_of_figures_is_that_of_the_chart() -> None:
    (chart,) = [chart for chart in bars.CHARTS if chart.name == "a-token"]
    texts = {label: text for label, _, text in bars.values(chart, bars.measured())}
    first = rows(README, "How fast")[0]
    assert first[1] == texts["Keeper.get_token()"]
    assert first[2] == f"botocore {texts['botocore']}, google-auth {texts['google-auth']}"


def test_what_it_links_to_is_there() -> None:
    linked = linked_files(README)
    assert len(linked) > 5
    assert [name for name in linked if not (README.parent / name.replace("\n", " ")).exists()] == []


def test_it_is_short() -> None:
    assert len(README.read_text().splitlines()) <= A_SCREEN_AND_A_HALF

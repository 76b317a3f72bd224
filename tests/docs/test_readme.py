"""What the README shows: its example runs, and its figures are those that were measured last."""

from __future__ import annotations

import re
import secrets
from pathlib import Path
from typing import Any

import pytest

from devserver.testing import DevServer

from .pages import DOCS, code_blocks, rows, run

pytestmark = pytest.mark.process

README = DOCS.parent / "README.md"
MEASURED = DOCS / "benchmarks" / "README.md"
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
    measured = MEASURED.read_text()
    shown = rows(README, "How fast")
    assert len(shown) >= 5
    for what, beside, median in shown:
        assert f"| {what} | {beside} | {median} |" in measured
    (date,) = re.findall(r"`make bench` on (\d{4}-\d\d-\d\d)", README.read_text())
    assert f"Written by `make bench` on {date}" in measured


def test_what_it_links_to_is_there() -> None:
    linked = linked_files(README)
    assert len(linked) > 5
    assert [name for name in linked if not (README.parent / name.replace("\n", " ")).exists()] == []


def test_it_is_short() -> None:
    assert len(README.read_text().splitlines()) <= A_SCREEN_AND_A_HALF

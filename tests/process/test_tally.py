"""What is summed up over many runs."""

from __future__ import annotations

import sys
from pathlib import Path

import pytest

from tests.sanitized import patience

from . import runs
from .tally import summary

pytestmark = pytest.mark.process


def program(text: str) -> list[str]:
    return [sys.executable, "-c", f"import os, sys, time; {text}"]


def test_runs_are_counted_and_the_slowest_is_named(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    results = tmp_path / "results"
    monkeypatch.setenv("TESSALINE_EXIT_RESULTS", str(results))
    runs.check("at once", program("print(time.monotonic())"), runs=2)
    runs.check("slowly", program("print(time.monotonic() - 1.5)"), runs=1)
    with pytest.raises(pytest.fail.Exception, match="1 of 1 runs: exit code 3"):
        runs.check("badly", program("print(0); sys.exit(3)"), runs=1)
    line, good = summary(results.read_text().splitlines())
    assert line.startswith("exits: 3 scenarios, at least 1 runs each, 4 in all, slowest 1.5")
    assert line.endswith(" s (slowly), 1 failures")
    assert not good


@pytest.mark.parametrize(
    ("text", "problem"),
    [
        (f"print(time.monotonic() - {patience(3)})", f"took {patience(3):.0f}"),
        ("print(time.monotonic()); sys.stderr.write('word')", "exit code 0, stderr word"),
        ("print(time.monotonic(), flush=True); os.abort()", "exit code -6"),
    ],
)
def test_what_is_not_a_clean_end(text: str, problem: str) -> None:
    with pytest.raises(pytest.fail.Exception, match=problem):
        runs.check("not clean", program(text), runs=1)


def test_nothing_is_no_success() -> None:
    assert summary([]) == ("exits: nothing was run", False)

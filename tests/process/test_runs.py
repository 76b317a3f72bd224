"""What does not count as a clean exit of a program."""

from __future__ import annotations

import sys

import pytest

from tests.sanitized import patience

from . import runs

pytestmark = pytest.mark.process


def program(text: str) -> list[str]:
    return [sys.executable, "-c", f"import os, sys, time; {text}"]


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

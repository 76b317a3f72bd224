"""Runs a program TESSALINE_EXIT_RUNS times: each run must end as expected.

TESSALINE_EXIT_PYTHON: the interpreter to run it; by default this one.
"""

from __future__ import annotations

import json
import os
import re
import subprocess
import sys
import time
from collections.abc import Mapping, Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

import pytest

from tests.sanitized import patience

ROOT = Path(__file__).resolve().parents[2]
PYTHON = os.environ.get("TESSALINE_EXIT_PYTHON", sys.executable)
AT_ONCE = 4
MOST_SECONDS = patience(2.0)
DEADLINE = patience(60.0)


def how_many(usual: int) -> int:
    return int(os.environ.get("TESSALINE_EXIT_RUNS", usual))


@dataclass(frozen=True)
class End:
    """How a program should end. The error output is a pattern for all of it."""

    code: int = 0
    errors: str = ""


@dataclass(frozen=True)
class Outcome:
    seconds: float
    problem: str | None


def run_once(command: Sequence[str], end: End, environment: Mapping[str, str]) -> Outcome:
    """Run it. It prints last the monotonic time from which it had nothing left to do."""
    try:
        done = subprocess.run(
            command,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            cwd=ROOT,
            env=os.environ | environment,
            timeout=DEADLINE,
        )
    except subprocess.TimeoutExpired as expired:
        said = f"output {expired.output!r}, {expired.stderr!r}"
        return Outcome(DEADLINE, f"still running after {DEADLINE} s, {said}")
    ended = time.monotonic()
    errors = done.stderr.decode(errors="replace")
    if done.returncode != end.code or not re.fullmatch(end.errors, errors, re.DOTALL):
        return Outcome(0.0, f"exit code {done.returncode}, stderr {errors}")
    seconds = ended - float(done.stdout.split()[-1])
    return Outcome(seconds, None if seconds < MOST_SECONDS else f"took {seconds:.2f} s to end")


def check(
    name: str,
    command: Sequence[str],
    *,
    runs: int,
    end: End | None = None,
    environment: Mapping[str, str] | None = None,
) -> None:
    """Run it `runs` times, and fail with all errors of these runs."""
    assert runs > 0
    with ThreadPoolExecutor(AT_ONCE) as pool:
        outcomes = list(pool.map(lambda _: run_once(command, end or End(), environment or {}), range(runs)))
    problems = [outcome.problem for outcome in outcomes if outcome.problem is not None]
    slowest = max(outcome.seconds for outcome in outcomes)
    _tell(name, runs, slowest, len(problems))
    if problems:
        pytest.fail(f"{len(problems)} of {runs} runs: " + "\n".join(problems), pytrace=False)


def _tell(name: str, runs: int, slowest: float, failures: int) -> None:
    """For counting over the whole test run (tally.py)."""
    if results := os.environ.get("TESSALINE_EXIT_RESULTS"):
        with open(results, "a") as file:
            print(json.dumps([name, runs, slowest, failures]), file=file)

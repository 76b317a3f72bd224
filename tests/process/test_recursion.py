"""Infinite recursion through methods raises RecursionError; the process survives."""

from __future__ import annotations

import json
import resource
import subprocess
import sys

import pytest

from tests.sanitized import patience

from .recursion import SCENARIOS

pytestmark = pytest.mark.process

# KiB of the thread's stack; 0 for the main thread.
STACKS = [0, 8192, 512]
TEXT = "maximum recursion depth exceeded"


def told_by(scenario: str, stack: int, limit: int | None = None) -> tuple[str, str, list[str]]:
    """The result in a new process, whose main thread has a stack of at most `limit` bytes."""

    def set_limit() -> None:
        assert limit is not None
        resource.setrlimit(resource.RLIMIT_STACK, (limit, resource.getrlimit(resource.RLIMIT_STACK)[1]))

    done = subprocess.run(
        [sys.executable, "-m", "tests.process.recursion", scenario, str(stack)],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        preexec_fn=None if limit is None else set_limit,
        text=True,
        timeout=patience(60.0),
    )
    assert (done.returncode, done.stderr) == (0, "")
    kind, text, notes = json.loads(done.stdout)
    return kind, text, notes


def check(told: tuple[str, str, list[str]], scenario: str) -> None:
    kind, text, notes = told
    # A renewal has no caller to raise to; its error is stored, with one note.
    stored = scenario == "renewal_that_starts_itself"
    assert (kind, len(notes)) == (("AuthError", 1) if stored else ("RecursionError", 0))
    assert text.startswith(TEXT)


@pytest.mark.parametrize("stack", STACKS)
@pytest.mark.parametrize("scenario", SCENARIOS)
def test_a_recursion_without_end(scenario: str, stack: int) -> None:
    check(told_by(scenario, stack), scenario)


@pytest.mark.parametrize("limit", [512 * 1024, 64 * 1024 * 1024, resource.RLIM_INFINITY])
def test_the_limit_of_the_main_thread_counts(limit: int) -> None:
    hard = resource.getrlimit(resource.RLIMIT_STACK)[1]
    if hard != resource.RLIM_INFINITY and not 0 <= limit <= hard:
        pytest.skip("the machine allows no such stack")
    scenario = "clock_that_is_get_time"
    check(told_by(scenario, 0, limit), scenario)

"""The hunt finds a planted leak of every kind, and reports nothing else."""

from __future__ import annotations

import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

from tests.sanitized import SANITIZER

from .verdict import leaked_per_repetition, may_leak

pytestmark = [
    pytest.mark.process,
    pytest.mark.skipif(SANITIZER is not None, reason="a sanitizer's allocator does not tell what it holds"),
]

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]

LEAKS = {
    "a_block": {"memory blocks"},
    "a_cycle_that_nobody_can_collect": {"memory blocks"},
    "a_reference_to_a_type": {"references to ProfileError"},
    "a_manager": {"memory blocks", "references to AuthManager", "secret slots"},
    "a_thread": {"threads", "native threads"},
    "a_descriptor": {"descriptors"},
    "native_bytes": {"native bytes"},
    "mapped_bytes": {"native bytes"},
    "in_the_end_of_a_fixture": {"memory blocks"},
    "and_comes_and_goes": {"memory blocks"},
}


@pytest.fixture(scope="module")
def hunted() -> str:
    done = subprocess.run(
        [sys.executable, "-m", "tests.leakhunt", "--at-once", "1", str(HERE / "planted.py")],
        cwd=ROOT,
        env=os.environ | {"TESSALINE_LEAKS_COLUMNS": "500"},
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        timeout=60,
        text=True,
    )
    assert done.returncode == 1, done.stdout
    return done.stdout


def verdict_on(test: str, output: str) -> str:
    """The report about the test in the list of failures; empty if there is none."""
    parts = re.split(r"^_+ (test_\w+) _+$", output.partition("= short test summary")[0], flags=re.MULTILINE)
    return dict(zip(parts[1::2], parts[2::2], strict=True)).get(test, "")


@pytest.mark.parametrize("kind", LEAKS)
def test_a_planted_leak_is_found(kind: str, hunted: str) -> None:
    said = verdict_on(f"test_leaks_{kind}", hunted)
    assert LEAKS[kind] <= set(re.findall(r"leaks ([\w ]+): [1-9]", said)), said


def test_it_is_said_how_much_leaks(hunted: str) -> None:
    assert "leaks descriptors: 1 in each repetition" in verdict_on("test_leaks_a_descriptor", hunted)


def test_who_leaks_nothing_is_not_blamed(hunted: str) -> None:
    blamed = set(re.findall(r"^FAILED .*::(test_\w+)", hunted, flags=re.MULTILINE))
    assert blamed == {f"test_leaks_{kind}" for kind in LEAKS} | {"test_fails_the_third_time"}


def test_a_test_that_fails_when_repeated_is_shown_as_it_is(hunted: str) -> None:
    said = verdict_on("test_fails_the_third_time", hunted)
    assert "assert 3 < 3" in said and "in repetition 2" in said


def test_one_more_at_the_end_is_looked_into() -> None:
    assert may_leak([5, 7, 4, 6], 1)
    assert not may_leak([5, 7, 4, 5], 1)
    assert not may_leak([0, 0, 0, 15], 16)
    assert may_leak([0, 0, 0, 16], 16)


@pytest.mark.parametrize(
    ("readings", "rate"),
    [
        ([5, 6, 7, 8, 9, 10, 11, 12], 1.0),
        ([5, 9, 7, 12, 9, 13, 11, 15], 1.0),
        ([5, 5, 5, 5, 5, 5, 5, 5], 0.0),
        ([5, 6, 7, 8, 8, 8, 8, 8], 0.0),
        ([5, 5, 5, 5, 5, 99, 99, 99], 0.0),
        ([9, 6, 9, 6, 9, 6, 9, 6], 0.0),
        ([9, 8, 7, 6, 5, 4, 3, 2], 0.0),
    ],
)
def test_growth_is_what_raises_the_lowest_reading_again_and_again(readings: list[int], rate: float) -> None:
    assert leaked_per_repetition(readings, 1) == rate


def test_growth_below_the_least_is_none() -> None:
    assert leaked_per_repetition(range(0, 56, 7), 16) == 0.0
    assert leaked_per_repetition(range(0, 128, 16), 16) == 16.0

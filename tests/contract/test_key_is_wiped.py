"""A manager that has ended leaves no copy of its key in the memory of the process."""

from __future__ import annotations

import json
import os
import random
import subprocess
import sys
from pathlib import Path

import pytest

from tessaline import auth
from tests.sanitized import searches_all_memory

from .support import key_scan

SCANNER = Path(key_scan.__file__)
PACKAGE = Path(auth.__file__).parents[1]

pytestmark = [pytest.mark.process, searches_all_memory]

ENDED = sorted(set(key_scan.LIVES) - {"stay_open", "read_the_field"})


def mixed_case(digits: str, chance: random.Random) -> str:
    return "".join(chance.choice((digit.lower(), digit.upper())) for digit in digits)


def found_in(life: str) -> dict[str, int]:
    chance = random.Random(life)
    key = chance.randbytes(32)
    text = mixed_case(key.hex(), chance)
    masked = [bytes(byte ^ key_scan.MASK for byte in plain).hex() for plain in (text.encode(), key)]
    ended = subprocess.run(
        [sys.executable, str(SCANNER), life, *masked],
        env={**os.environ, "PYTHONPATH": str(PACKAGE)},
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert ended.returncode == 0, ended.stderr
    assert ended.stderr == ""
    return json.loads(ended.stdout)


def test_the_search_finds_every_form_of_the_key() -> None:
    assert min(found_in("plant").values()) >= 1


def test_the_search_finds_the_key_of_a_manager_in_use() -> None:
    found = found_in("stay_open")
    assert found["bytes, first half"] >= 1
    assert found["bytes, second half"] >= 1
    texts = ("as given", "lower", "upper")
    assert {form: count for form, count in found.items() if form.startswith(texts) and count} == {}


def test_the_search_finds_the_text_that_the_host_has_asked_for() -> None:
    found = found_in("read_the_field")
    assert found["as given, first half"] >= 1
    assert found["as given, second half"] >= 1


@pytest.mark.parametrize("life", ENDED)
def test_no_trace_is_left(life: str) -> None:
    assert {form: count for form, count in found_in(life).items() if count} == {}

"""A Python newer than all tested ones: everything works without the use of internals."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import pytest

from tests.sanitized import EMULATED, patience
from tests.shared.pythons import SWITCH

pytestmark = pytest.mark.process

ROOT = Path(__file__).resolve().parents[2]
# The tests that wait, wake, serve and read clocks in every way.
CENTRAL = [
    "tests/auth/test_clock.py",
    "tests/auth/test_get_token.py",
    "tests/contract/test_calls_from_within.py",
    "tests/contract/test_fast_path_equals_full_path.py",
    "tests/contract/test_get_token_while_fields_change.py",
    "tests/contract/test_overlapping_attempts.py",
    "tests/contract/test_settled_races.py",
    "tests/contract/test_waits_end.py",
    "tests/keeper/test_serving.py",
    "tests/threads/test_endless_waits.py",
    "tests/threads/test_faked_time.py",
    "tests/threads/test_own_clocks.py",
]
# An emulator takes minutes for all, and the plain paths do not depend on the processor.
FEW = ["tests/keeper/test_serving.py", "tests/threads/test_own_clocks.py"]
# Whether the component sets an event itself, or has Python do it.
WHO_SETS = """
import sys, threading
from tessaline._native import set_event
seen = []
sys.setprofile(lambda frame, event, argument: seen.append(frame.f_code.co_name))
set_event(event := threading.Event())
sys.setprofile(None)
print(event.is_set(), "set" in seen)
"""


def ended(*arguments: str, untried: bool) -> subprocess.CompletedProcess[str]:
    environment = {name: value for name, value in os.environ.items() if name != SWITCH}
    return subprocess.run(
        [sys.executable, *arguments],
        env=environment | ({SWITCH: "1"} if untried else {}),
        cwd=ROOT,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        timeout=patience(240.0),
        text=True,
    )


@pytest.mark.parametrize("untried", [False, True])
def test_the_switch_makes_every_python_one(untried: bool) -> None:
    told = ended("-c", WHO_SETS, untried=untried)
    assert (told.returncode, told.stderr) == (0, "")
    assert told.stdout == f"True {untried}\n"


@pytest.mark.long
def test_what_is_central_goes_on_by_the_plain_paths() -> None:
    told = ended(
        "-m", "pytest", "-q", "-p", "no:cacheprovider", *(FEW if EMULATED else CENTRAL), untried=True
    )
    assert told.returncode == 0, told.stdout + told.stderr

"""How many instructions the hot paths take, as callgrind counts them: detects a slow-down without a clock."""

from __future__ import annotations

import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

from tessaline import auth

CALLS, SIGNATURES = 1000, 3
pytestmark = pytest.mark.process

PACKAGE = Path(auth.__file__).parents[1]
ROOT = Path(__file__).resolve().parents[2]
RELEASE = ROOT / "build/release/package"
MODULE = ROOT / "build/release/tests/native/instructions"

# Above those of an empty native method of a similar type; 247 were counted when this was written.
MOST_TO_SERVE = 260
# Relative to the digest and libsecp256k1's recoverable signature alone; 1.044 and 1.011 were counted.
MOST_TO_SIGN = {32: 1.10, 16384: 1.05}


@pytest.fixture(scope="module")
def counts(tmp_path_factory: pytest.TempPathFactory) -> dict[str, int]:
    """Instructions between the marks, by name."""
    if PACKAGE != RELEASE and PACKAGE.is_relative_to(ROOT / "build"):
        pytest.skip("counts the instructions of a release build")
    folder = tmp_path_factory.mktemp("callgrind")
    ended = subprocess.run(
        [
            "valgrind",
            "--tool=callgrind",
            f"--callgrind-out-file={folder / 'out'}",
            os.path.realpath(sys.executable),
            "-c",
            f"from tests.instructions.counted import main; main({CALLS}, {SIGNATURES})",
        ],
        env={name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
        | {
            "PYTHONPATH": os.pathsep.join(map(str, (PACKAGE, MODULE, ROOT))),
            "PYTHONDONTWRITEBYTECODE": "1",
            "PYTHONHASHSEED": "0",
        },
        cwd=folder,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=120,
    )
    assert ended.returncode == 0, ended.stderr
    found = {}
    for path in folder.glob("out.*"):
        said = path.read_text()
        [name] = re.findall(r"^desc: Trigger: Client Request: (.+)$", said, re.MULTILINE)
        [total] = re.findall(r"^totals: (\d+)$", said, re.MULTILINE)
        found[name] = int(total)
    return found


def test_serving_the_token_takes_few(counts: dict[str, int]) -> None:
    more = (counts["served"] - counts["empty"]) / CALLS
    assert 0 < more <= MOST_TO_SERVE


@pytest.mark.parametrize("size", MOST_TO_SIGN)
def test_signing_takes_little_more_than_the_curve(size: int, counts: dict[str, int]) -> None:
    assert 1 < counts[f"signed {size}"] / counts[f"bare {size}"] <= MOST_TO_SIGN[size]

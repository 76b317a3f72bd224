"""An import on an unsupported system ends in one sentence with the supported ones."""

from __future__ import annotations

import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

import tessaline

pytestmark = pytest.mark.process

PACKAGE = Path(tessaline.__file__).parent
RUNS_ON = "tessaline runs on CPython 3.13 or later, with its global interpreter lock, on Linux, not on "
IMPORT = "import sys; sys.path.insert(0, {path!r}); {before}; import tessaline"

# As other interpreters and systems identify themselves.
OTHERS = {
    "PyPy": ("sys.implementation.name = 'pypy'; del sys.abiflags", "pypy {version} on linux"),
    "free-threaded": ("sys.abiflags = 't'", "cpython {version}t on linux"),
    "macOS": ("sys.platform = 'darwin'", "cpython {version} on darwin"),
    "Windows": ("sys.platform = 'win32'; del sys.abiflags", "cpython {version} on win32"),
}


def last_words(python: str, before: str = "pass") -> str:
    program = IMPORT.format(path=str(PACKAGE.parent), before=before)
    ended = subprocess.run(
        [python, "-B", "-I", "-c", program],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        timeout=60,
        text=True,
    )
    assert ended.returncode == 1, ended.stderr
    return ended.stderr.splitlines()[-1]


@pytest.mark.parametrize("other", OTHERS)
def test_another_kind_of_python_is_told_what_is_supported(other: str) -> None:
    before, shown = OTHERS[other]
    version = f"{sys.version_info[0]}.{sys.version_info[1]}"
    assert last_words(sys.executable, before) == f"ImportError: {RUNS_ON}{shown.format(version=version)}"


def older_pythons() -> Iterator[tuple[str, str]]:
    for minor in range(8, 13):
        places = [shutil.which(f"python3.{minor}")]
        places += map(str, Path.home().glob(f".pyenv/versions/*/bin/python3.{minor}"))
        for place in places:
            if place is not None and runs(place):
                yield f"3.{minor}", place


def runs(python: str) -> bool:
    """A shim of pyenv runs only the selected version."""
    return subprocess.run([python, "-c", ""], capture_output=True, timeout=60).returncode == 0


def test_an_older_python_is_told_what_is_supported() -> None:
    found = list(older_pythons())
    if not found:
        pytest.skip("there is no older Python here")
    for version, python in found:
        assert last_words(python) == f"ImportError: {RUNS_ON}cpython {version} on linux"

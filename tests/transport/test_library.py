"""The library that makes requests is loaded with the first of them, or each of them is an error."""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from tessaline import auth

PACKAGE = Path(auth.__file__).parent
LIBRARY = "libtessaline_http.so"

PROGRAM = """
import json, os, shutil, sys
from tessaline import auth
port, found, place = sys.argv[1:]
told = []
def ask():
    try:
        auth._default_http_transport("GET", "http://127.0.0.1:" + port + "/")
    except Exception as error:
        told.append([type(error).__name__, str(error)])
ask(), ask()
shutil.copy(found, place + ".new")
os.replace(place + ".new", place)
ask()
print(json.dumps(told))
"""


@pytest.fixture
def package(tmp_path: Path) -> Path:
    """The package without that library."""
    # Where a wheel keeps the libraries that it brings along.
    if (brought := PACKAGE.with_suffix(".libs")).exists():
        (tmp_path / brought.name).symlink_to(brought)
    ignored = shutil.ignore_patterns(LIBRARY, "__pycache__")
    return shutil.copytree(PACKAGE, tmp_path / "tessaline", ignore=ignored)


def told(package: Path, port: int) -> list[list[str]]:
    """What two requests fail with, and a third one when the library has been put in its place."""
    done = subprocess.run(
        [sys.executable, "-c", PROGRAM, str(port), PACKAGE / LIBRARY, package / LIBRARY],
        env={**os.environ, "PYTHONPATH": str(package.parent)},
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert (done.returncode, done.stderr) == (0, "")
    return json.loads(done.stdout)


def test_a_missing_library_is_loaded_once_it_is_there(package: Path, unused_port: int) -> None:
    *missing, later = told(package, unused_port)
    assert [name for name, _ in missing] == ["OSError", "OSError"]
    assert all("cannot be loaded" in text and LIBRARY in text for _, text in missing)
    assert later[0] == "ConnectionRefusedError"


def test_another_library_in_its_place_is_an_error(package: Path, unused_port: int) -> None:
    shutil.copy(auth.__file__, package / LIBRARY)
    first, second, _ = told(package, unused_port)
    assert first == second
    assert first[0] == "OSError"
    assert "cannot be loaded" in first[1]

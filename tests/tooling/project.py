"""Where the project is, which files are its own, and how its tools are run."""

import functools
import os
import subprocess
from collections.abc import Mapping
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]

Ended = subprocess.CompletedProcess[str]


@functools.cache
def own_files() -> tuple[Path, ...]:
    """Every file that git tracks or would track."""
    if not (ROOT / ".git").exists():
        pytest.skip("only a git checkout knows its own files")
    # Another user may own the checkout.
    command = ["git", "-c", f"safe.directory={ROOT}", "ls-files", "-z", "--cached", "--others"]
    listed = subprocess.run(
        [*command, "--exclude-standard"], cwd=ROOT, check=True, capture_output=True, timeout=60, text=True
    )
    paths = (ROOT / name for name in listed.stdout.split("\0") if name)
    return tuple(sorted(path for path in paths if path.is_file()))


def own_sources(*suffixes: str, under: str = ".") -> list[Path]:
    folder = (ROOT / under).resolve()
    return [path for path in own_files() if path.suffix in suffixes and path.is_relative_to(folder)]


def run(*command: str, cwd: Path = ROOT, environment: Mapping[str, str] | None = None) -> Ended:
    return subprocess.run(
        command,
        cwd=cwd,
        env={**os.environ, **(environment or {})},
        capture_output=True,
        timeout=120,
        text=True,
        stdin=subprocess.DEVNULL,
    )

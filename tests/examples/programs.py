"""Programs in separate processes, with the key of a new wallet in their environment."""

from __future__ import annotations

import contextlib
import os
import secrets
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

from tests.sanitized import patience

ROOT = Path(__file__).resolve().parents[2]
SECONDS = patience(20.0)


@contextlib.contextmanager
def program(*arguments: str, **variables: str) -> Iterator[subprocess.Popen[str]]:
    """A Python program with these environment variables; it is killed if it has not ended with the block."""
    search_path = os.pathsep.join([str(ROOT), *filter(None, [os.environ.get("PYTHONPATH")])])
    process = subprocess.Popen(
        [sys.executable, *arguments],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        env=os.environ | {"PYTHONPATH": search_path, "WALLET_KEY": secrets.token_hex(32)} | variables,
    )
    with process:
        try:
            yield process
        finally:
            process.kill()


def line_of(process: subprocess.Popen[str]) -> str:
    """Its next line of output; the test's own time-out limits the wait."""
    assert process.stdout is not None
    return process.stdout.readline().rstrip("\n")


def ended(process: subprocess.Popen[str]) -> tuple[int, str, str]:
    """Its exit status, and the rest of its output and its errors."""
    output, complaints = process.communicate(timeout=SECONDS)
    return process.returncode, output, complaints

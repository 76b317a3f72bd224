"""Runs a separate program, which must end soon and as expected."""

from __future__ import annotations

import os
import re
import resource
import subprocess
import sys
import textwrap
from collections.abc import Mapping, Sequence
from pathlib import Path

from tests.sanitized import patience

ROOT = Path(__file__).resolve().parents[2]
# A program that hangs prints its stacks before the time-out.
TELLS_AFTER = patience(15.0)
DEADLINE = TELLS_AFTER + 5.0
STACK = 8 << 20

WATCHED = f"import faulthandler\nfaulthandler.dump_traceback_later({TELLS_AFTER}, exit=True)\n"
USUAL = "from tests.threads.in_program import *\n"


def _usual_stack() -> None:
    _, most = resource.getrlimit(resource.RLIMIT_STACK)
    resource.setrlimit(resource.RLIMIT_STACK, (STACK, most))


def run(
    program: str,
    *,
    before: str = "",
    prelude: str = USUAL,
    ending: str = "",
    errors: str = "",
    options: Sequence[str] = (),
    environment: Mapping[str, str] | None = None,
) -> str:
    """Run it between `before` with the prelude and the ending; returns its output.

    It must end with exit code 0, and `errors` is a pattern for its whole error output.
    """
    text = WATCHED + textwrap.dedent(before) + prelude + textwrap.dedent(program) + "\n" + ending
    path = [str(ROOT), str(ROOT / "tests"), *filter(None, [os.environ.get("PYTHONPATH")])]
    try:
        done = subprocess.run(
            [sys.executable, "-X", "faulthandler", *options, "-c", text],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            cwd=ROOT,
            env=os.environ | {"PYTHONPATH": os.pathsep.join(path)} | dict(environment or {}),
            timeout=DEADLINE,
            text=True,
            preexec_fn=_usual_stack,
        )
    except subprocess.TimeoutExpired as expired:
        raise AssertionError(f"still running: {expired.output!r}, {expired.stderr!r}") from None
    assert done.returncode == 0, f"exit code {done.returncode}, stderr {done.stderr}"
    assert re.fullmatch(errors, done.stderr, re.DOTALL), f"stderr {done.stderr}"
    return done.stdout

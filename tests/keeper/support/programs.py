"""Programs that use a keeper: their common parts, and how they are run."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
import textwrap
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from tests.sanitized import patience

ROOT = Path(__file__).resolve().parents[3]
DEADLINE = patience(30.0)
AT_ONCE = 4

PRELUDE = "from tests.keeper.support.in_program import *\n"


def run(program: str, *, prelude: str = PRELUDE, code: int = 0, runs: int = 1) -> None:
    """Run it; it must exit with `code`, without output, and soon after it has printed the time of its end."""
    command = [sys.executable, "-X", "faulthandler", "-c", prelude + textwrap.dedent(program)]
    with ThreadPoolExecutor(AT_ONCE) as pool:
        problems = [one for one in pool.map(lambda _: _once(command, code), range(runs)) if one]
    assert not problems, f"{len(problems)} of {runs} runs:\n" + "\n".join(problems)


def _once(command: list[str], code: int) -> str | None:
    environment = os.environ | {"PYTHONPATH": os.pathsep.join([str(ROOT), str(ROOT / "tests")])}
    with subprocess.Popen(
        command,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        cwd=ROOT,
        env=environment,
        text=True,
    ) as running:
        try:
            output, errors = running.communicate(timeout=DEADLINE)
        except subprocess.TimeoutExpired:
            running.send_signal(signal.SIGABRT)  # faulthandler prints the stacks
            return f"still running after {DEADLINE} s: {_what_was_printed(running)}"
    ended = time.monotonic()
    if running.returncode != code or errors:
        return f"exit code {running.returncode}, stderr {errors}"
    if output and ended - float(output.split()[-1]) > patience(3.0):
        return f"took {ended - float(output.split()[-1]):.2f} s to end"
    return None


def _what_was_printed(aborted: subprocess.Popen[str]) -> str:
    try:
        output, errors = aborted.communicate(timeout=patience(5.0))
    except subprocess.TimeoutExpired as late:
        # Its forked children may keep the pipes open.
        aborted.kill()
        return f"{late.output!r}, {late.stderr!r}"
    return f"{output!r}, {errors}"

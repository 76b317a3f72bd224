"""Programs of their own, for what would disturb the process of the tests."""

from __future__ import annotations

import json
import subprocess
import sys
import textwrap
from typing import Any

DEADLINE = 60.0
START = """
import json, os, sys, threading
from tessaline import auth
arguments = json.loads(sys.argv[1])
"""


def told_by(program: str, *arguments: Any, helpers: str = "") -> Any:
    """Run the program with the arguments in `arguments`; give back the JSON value of its output.

    helpers: what several programs define, put before this one.
    """
    whole = START + helpers + textwrap.dedent(program)
    done = subprocess.run(
        [sys.executable, "-P", "-W", "ignore", "-c", whole, json.dumps(arguments)],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=DEADLINE,
    )
    assert (done.returncode, done.stderr) == (0, ""), done.stderr
    return json.loads(done.stdout)

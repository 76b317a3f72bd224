"""Separate programs, for what would affect the process of the tests."""

from __future__ import annotations

import json
import signal
import subprocess
import sys
import textwrap
from typing import Any

from devserver.testing import DevServer

DEADLINE = 60.0
START = """
import json, os, signal, sys, threading, time
from tessaline import auth
arguments = json.loads(sys.argv[1])
# A shell's background jobs ignore it.
signal.signal(signal.SIGINT, signal.default_int_handler)
"""
# Helpers of programs that fork.
FORKING = """
def code_of_child(work):
    # 0 if the result of `work` is true in a forked child.
    child = os.fork()
    if child == 0:
        code = 1
        try:
            code = 0 if work() else 2
        finally:
            os._exit(code)
    return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
"""


def told_by(
    program: str, *arguments: Any, helpers: str = "", interrupt_at: tuple[DevServer, str] | None = None
) -> Any:
    """Run the program with the arguments in `arguments`; return its output as JSON.

    helpers: definitions common to several programs, inserted before this one. interrupt_at: a server and a
    path; the program is interrupted when its request arrives there.
    """
    whole = START + helpers + textwrap.dedent(program)
    with subprocess.Popen(
        [sys.executable, "-P", "-W", "ignore", "-c", whole, json.dumps(arguments)],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    ) as child:
        try:
            if interrupt_at is not None:
                server, path = interrupt_at
                server.wait_for(path, 1, timeout=DEADLINE)
                child.send_signal(signal.SIGINT)
            output, errors = child.communicate(timeout=DEADLINE)
        except BaseException:
            child.kill()
            raise
    assert (child.returncode, errors) == (0, ""), errors
    return json.loads(output)

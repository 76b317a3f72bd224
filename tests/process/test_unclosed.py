"""The warning at exit about managers that renew their tokens and were never closed."""

from __future__ import annotations

import re
import subprocess
import textwrap

import pytest

from tests.sanitized import patience

from . import runs

pytestmark = pytest.mark.process

BEGIN = """
import atexit, os, sys, threading
from tessaline import auth
from tests.process.recursion import manager
"""
WARNING = r"\S+:\d: ResourceWarning: unclosed <AuthManager address=0x[0-9a-f]{40} server=\S+ state=\w+>\n"
# The interpreter adds this.
LEFT_OPEN = WARNING + r"(ResourceWarning: Enable tracemalloc .*\n)?"


def said_by(program: str, *options: str) -> str:
    done = subprocess.run(
        [runs.PYTHON, *options, "-c", BEGIN + textwrap.dedent(program)],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=patience(60.0),
    )
    assert (done.returncode, done.stdout) == (0, "")
    return done.stderr


LEAVE_OPEN = """
    one = manager()
    one.authenticate()
"""


def test_a_manager_that_was_never_closed() -> None:
    assert re.fullmatch(LEFT_OPEN, said_by(LEAVE_OPEN, "-W", "default"))


def test_it_is_said_once_for_each_that_nobody_keeps() -> None:
    program = """
        for _ in range(3):
            one = manager()
            one.authenticate()
            one.authenticate()
            del one
    """
    assert re.fullmatch(f"({LEFT_OPEN}){{3}}", said_by(program, "-W", "always"))


def test_nobody_hears_it_who_has_not_asked() -> None:
    assert said_by(LEAVE_OPEN) == ""


@pytest.mark.parametrize(
    "program",
    [
        "manager()",
        "one = manager()\none.authenticate()\none.close()",
        "with manager() as one: one.authenticate()",
        "one = manager()\natexit.register(one.close)\none.authenticate()",
        "one = manager()\none.authenticate()\natexit.register(one.close)",
        "threading.Thread(target=threading.Event().wait, daemon=True).start()",
        """
        one = manager()
        def leave():
            one.authenticate()
            threading.main_thread().join()
            one.close()
        threading.Thread(target=leave).start()
        """,
        """
        from tessaline.keeper import Keeper
        keeper = Keeper(manager())
        keeper.start()
        """,
        """
        one = manager()
        one.authenticate()
        if os.fork() == 0:
            sys.exit()
        os.wait()
        one.close()
        """,
    ],
    ids=["unused", "closed", "block", "hook first", "hook later", "other", "thread", "keeper", "child"],
)
def test_who_leaves_nothing_behind_hears_nothing(program: str) -> None:
    assert said_by(program, "-W", "default", "-W", "ignore::DeprecationWarning") == ""


def test_a_program_that_makes_errors_of_warnings_ends_all_the_same() -> None:
    assert "ResourceWarning: unclosed <AuthManager" in said_by(LEAVE_OPEN, "-W", "error::ResourceWarning")

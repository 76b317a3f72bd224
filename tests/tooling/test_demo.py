"""The demo as a command: its output into a pipe, and how it fails."""

import re
import sys

import pytest

from .project import run

pytestmark = pytest.mark.process


def test_the_demo_logs_in_and_tells_each_step() -> None:
    ended = run(sys.executable, "examples/demo.py", "log-in")
    assert (ended.returncode, ended.stderr) == (0, "")
    for expected in (
        "/auth/register",
        "/auth/challenge",
        "/auth/verify",
        "era_number",
        "next renewal",
        "MainThread",
    ):
        assert expected in ended.stdout


def test_the_demo_shows_nothing_secret_whole_and_is_plain_in_a_pipe() -> None:
    text = run(sys.executable, "examples/demo.py", "log-in").stdout
    assert "\x1b" not in text
    assert not re.search(r"[0-9a-fA-F]{64}", text)
    assert not re.search(r"eyJ[\w-]{4,}", text)


def test_a_step_that_does_not_see_what_it_should_fails_in_one_plain_line() -> None:
    program = (
        "import sys; sys.path.insert(0, 'examples'); import demo\n"
        "demo.LOGIN_PATHS = ['/auth/other']\n"
        "sys.argv = ['demo', 'log-in']; sys.exit(demo.main())"
    )
    ended = run(sys.executable, "-c", program)
    assert ended.returncode == 1
    assert ended.stderr.startswith("FAILED: a wallet logs in: ")
    assert ended.stderr.count("\n") == 1

"""A program ends at once, with exit code 0 and without a word, whatever the component is doing.

TESSALINE_EXIT_RUNS: how many processes run each scenario (8).
"""

from __future__ import annotations

import json
import os
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from devserver.testing import DevServer

from . import endings

RUNS = int(os.environ.get("TESSALINE_EXIT_RUNS", "8"))
AT_ONCE = 4
MOST_SECONDS = 2.0
DEADLINE = 60.0
PROGRAM = Path(endings.__file__).resolve()

CLOSED_AT_EXIT = [
    "idle",
    "refresh_in_http_request",
    "refresh_in_https_request",
    "refresh_in_back_off",
    "refresh_in_busy_transport",
    "era_change_in_http_request",
    "threads_waiting_for_a_token",
    "authenticate_with_many_waiters",
]
EXIT_CALLED = ["idle", "refresh_in_http_request", "refresh_in_busy_clock", "threads_taking_tokens"]


def problem_of_one_run(scenario: str, ending: str, config: str, ca_file: str) -> str | None:
    command = [sys.executable, "-P", "-X", "faulthandler", str(PROGRAM), scenario, ending, config]
    try:
        done = subprocess.run(
            command,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            env=os.environ | {"SSL_CERT_FILE": ca_file},
            timeout=DEADLINE,
        )
    except subprocess.TimeoutExpired as expired:
        return f"still running after {DEADLINE} s, output {expired.output!r}, {expired.stderr!r}"
    ended = time.monotonic()
    if done.returncode != 0 or done.stderr:
        return f"exit code {done.returncode}, stderr {done.stderr.decode(errors='replace')}"
    seconds = ended - float(done.stdout)
    return None if seconds < MOST_SECONDS else f"took {seconds:.2f} s to end"


def check_runs(scenario: str, ending: str, http_server: DevServer, https_server: DevServer) -> None:
    assert https_server.ca_file is not None
    config = json.dumps({"http": http_server.url, "https": https_server.url, "ca": https_server.ca_file})
    ca_file = https_server.ca_file
    with ThreadPoolExecutor(AT_ONCE) as pool:
        outcomes = list(
            pool.map(lambda _: problem_of_one_run(scenario, ending, config, ca_file), range(RUNS))
        )
    problems = [problem for problem in outcomes if problem is not None]
    if problems:
        pytest.fail(f"{len(problems)} of {RUNS} runs: " + "\n".join(problems), pytrace=False)
    assert len(outcomes) == RUNS > 0


@pytest.mark.parametrize("scenario", endings.SCENARIOS)
def test_a_program_that_falls_off_its_end(
    scenario: str, http_server: DevServer, https_server: DevServer
) -> None:
    check_runs(scenario, "falling_off", http_server, https_server)


@pytest.mark.parametrize("scenario", EXIT_CALLED)
def test_a_program_that_calls_exit(scenario: str, http_server: DevServer, https_server: DevServer) -> None:
    check_runs(scenario, "calling_exit", http_server, https_server)


@pytest.mark.parametrize("scenario", CLOSED_AT_EXIT)
def test_a_program_that_closes_its_managers_at_exit(
    scenario: str, http_server: DevServer, https_server: DevServer
) -> None:
    check_runs(scenario, "closing_at_exit", http_server, https_server)

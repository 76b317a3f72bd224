"""A program exits at once, with exit code 0 and without output, whatever the component is doing.

TESSALINE_EXIT_RUNS: how many processes run each scenario.
"""

from __future__ import annotations

import json
import re

import pytest

from devserver.testing import DevServer

from . import endings, main_thread, runs, scenarios

pytestmark = pytest.mark.process

RUNS = runs.how_many(1)

EXIT_CALLED = ["idle", "refresh_in_http_request", "refresh_in_busy_clock", "threads_taking_tokens"]
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
OTHER_ENDINGS = [
    "idle",
    "refresh_in_http_request",
    "refresh_in_tls_handshake",
    "refresh_in_busy_transport",
    "refresh_in_busy_clock",
    "era_change_in_busy_transport",
    "threads_taking_tokens",
    "threads_sending_https_requests",
    "authenticate_with_many_waiters",
    "rename_in_http_request",
]
ONE_TRACEBACK = (
    r"Traceback \(most recent call last\):\n(?!.*Traceback).*\nRuntimeError: "
    + re.escape(endings.WORDS)
    + "\n"
)


def check_runs(
    scenario: str, ending: str, http: DevServer, https: DevServer, end: runs.End | None = None
) -> None:
    assert https.ca_file is not None
    config = json.dumps({"http": http.url, "https": https.url, "ca": https.ca_file})
    command = [runs.PYTHON, "-X", "faulthandler", "-m", "tests.process.endings", scenario, ending, config]
    environment = {"SSL_CERT_FILE": https.ca_file}
    runs.check(f"{scenario}, {ending}", command, runs=RUNS, end=end, environment=environment)


@pytest.mark.parametrize("scenario", scenarios.SCENARIOS)
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


@pytest.mark.parametrize("ending", ["terminated", "leaving_at_once"])
@pytest.mark.parametrize("scenario", OTHER_ENDINGS)
def test_a_program_that_is_ended(
    scenario: str, ending: str, http_server: DevServer, https_server: DevServer
) -> None:
    check_runs(scenario, ending, http_server, https_server)


@pytest.mark.parametrize("scenario", OTHER_ENDINGS)
def test_a_program_that_ends_by_an_error_says_that_and_nothing_else(
    scenario: str, http_server: DevServer, https_server: DevServer
) -> None:
    check_runs(scenario, "raising", http_server, https_server, runs.End(1, ONE_TRACEBACK))


@pytest.mark.parametrize("scenario", main_thread.SCENARIOS)
def test_a_program_that_is_ended_in_the_middle_of_a_call(
    scenario: str, http_server: DevServer, https_server: DevServer
) -> None:
    check_runs(scenario, "in_the_main_thread", http_server, https_server)


@pytest.mark.parametrize("scenario", scenarios.SCENARIOS)
def test_a_forked_child_ends_like_any_program(
    scenario: str, http_server: DevServer, https_server: DevServer
) -> None:
    check_runs(scenario, "forked", http_server, https_server)


@pytest.mark.parametrize("scenario", OTHER_ENDINGS)
def test_worker_processes_end(scenario: str, http_server: DevServer, https_server: DevServer) -> None:
    check_runs(scenario, "forked_by_multiprocessing", http_server, https_server)

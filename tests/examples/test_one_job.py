"""The script with a time limit: its exit status."""

from __future__ import annotations

import socket
import time

from devserver.testing import DevServer
from examples.one_job import __file__ as PROGRAM
from tests.examples.programs import ended, program


def outcome(url: str, seconds: str) -> tuple[int, str, str]:
    with program(str(PROGRAM), url, "--within", seconds) as process:
        return ended(process)


def test_done(server: DevServer) -> None:
    assert outcome(server.url, "15") == (0, f"{server.url}: 200\n", "")


def test_refused_at_the_login_it_does_not_wait(server: DevServer) -> None:
    server.faults("register", [{"kind": "status", "status": 403}])
    status, output, complaints = outcome(server.url, "1000")
    assert (status, output) == (77, "")
    # The keeper's log, from its own thread, may come before or after it.
    assert f"{server.url}: unauthorized" in complaints.splitlines()


def test_refused_at_the_work(server: DevServer) -> None:
    server.faults("display_name", [{"kind": "status", "status": 400}])
    assert outcome(server.url, "15") == (77, f"{server.url}: 400\n", "")


def test_where_the_service_is_in_trouble_it_is_worth_another_run(server: DevServer) -> None:
    server.faults("display_name", [{"kind": "status", "status": 503}])
    assert outcome(server.url, "15") == (75, f"{server.url}: 503\n", "")


def test_nobody_there_it_gives_up_in_time() -> None:
    with socket.socket() as taken:
        # Bound, but nothing listens.
        taken.bind(("127.0.0.1", 0))
        url = f"http://127.0.0.1:{taken.getsockname()[1]}"
        begun = time.monotonic()
        status, output, complaints = outcome(url, "0.5")
    assert (status, output) == (75, "")
    assert complaints.splitlines()[-1].startswith(f"{url}: ")
    assert time.monotonic() - begun >= 0.5

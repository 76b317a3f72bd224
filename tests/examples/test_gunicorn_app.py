"""The WSGI application under gunicorn: workers that begin with one login and share announced eras."""

from __future__ import annotations

import json
import os
import signal
import subprocess
import urllib.request
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

import pytest

from devserver.testing import DevServer
from tests.examples.programs import SECONDS, ended, program
from tests.sanitized import SANITIZER
from tests.shared.threads import until

pytestmark = pytest.mark.skipif(
    SANITIZER == "thread", reason="its runtime delivers no signal to the child of a fork with threads"
)

DIRECT = urllib.request.build_opener(urllib.request.ProxyHandler({}))
WORKERS = 2


class Running:
    """gunicorn with the application, once it listens."""

    def __init__(self, process: subprocess.Popen[str]) -> None:
        self.process = process
        assert process.stderr is not None
        while "Listening at: " not in (line := process.stderr.readline()):
            assert line, "it has ended"
        self.url = line.partition("Listening at: ")[2].split()[0]

    def ask(self, path: str, method: str = "GET") -> dict[str, Any]:
        request = urllib.request.Request(self.url + path, method=method)
        with DIRECT.open(request, None, SECONDS) as answer:
            told: dict[str, Any] = json.load(answer)
            return told

    def ask_all(self, path: str, method: str = "GET") -> dict[int, dict[str, Any]]:
        """The responses of each worker."""
        answers: dict[int, dict[str, Any]] = {}

        def asked() -> bool:
            with ThreadPoolExecutor(WORKERS) as pool:
                for told in pool.map(lambda _: self.ask(path, method), range(2 * WORKERS)):
                    answers[told["worker"]] = told
            return len(answers) == WORKERS

        until(asked, "an answer of each worker")
        return answers

    def all_are_good(self) -> dict[int, dict[str, Any]]:
        """The responses of each worker once all have a token; empty before."""
        answers = self.ask_all("/")
        return answers if {told["state"] for told in answers.values()} == {"good"} else {}


@pytest.fixture
def running(server: DevServer, tmp_path: Path) -> Iterator[Running]:
    options = ("--preload", f"--workers={WORKERS}", "--bind=127.0.0.1:0", f"--worker-tmp-dir={tmp_path}")
    command = ("-m", "gunicorn", "--no-control-socket", *options, "examples.gunicorn_app:app")
    with program(*command, SERVICE_URL=server.url) as process:
        yield Running(process)


def test_workers_share_a_login_and_eras(server: DevServer, running: Running) -> None:
    until(
        lambda: all(told["state"] == "good" for told in running.ask_all("/").values()),
        "a login in each worker",
    )
    begun = running.ask_all("/")
    assert running.process.pid not in begun
    assert {told["era"] for told in begun.values()} == {0}

    server.settings(era=2)
    announced = running.ask("/era/2", "POST")
    # From now on no call gets an older token, even in the worker without the announcement.
    for told in running.ask_all("/name/Ada", "POST").values():
        assert told["display_name"] == "Ada"
    assert {told["era"] for told in running.ask_all("/").values()} == {2}
    assert announced["worker"] in begun
    refused = [one for one in server.requests if one["endpoint"] == "display_name" and one["status"] != 200]
    assert refused == []

    running.process.send_signal(signal.SIGTERM)
    assert ended(running.process)[0] == 0
    assert [worker for worker in begun if os.path.exists(f"/proc/{worker}")] == []

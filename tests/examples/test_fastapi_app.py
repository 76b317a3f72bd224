"""The FastAPI application under uvicorn: its responses with and without the service."""

from __future__ import annotations

import json
import signal
import subprocess
import urllib.error
import urllib.request
from collections.abc import Iterator
from typing import Any, NamedTuple

import pytest

from devserver.testing import DevServer
from tests.examples.programs import SECONDS, ended, program
from tests.shared.threads import until

DIRECT = urllib.request.build_opener(urllib.request.ProxyHandler({}))
UVICORN = ("-m", "uvicorn", "--no-access-log", "--port", "0", "examples.fastapi_app:app")


class Running(NamedTuple):
    process: subprocess.Popen[str]
    url: str

    def ask(self, path: str, method: str = "GET") -> tuple[int, dict[str, Any]]:
        try:
            with DIRECT.open(urllib.request.Request(self.url + path, method=method), None, SECONDS) as answer:
                return answer.status, json.load(answer)
        except urllib.error.HTTPError as error:
            with error:
                return error.code, json.load(error)

    def is_healthy(self) -> bool:
        return self.ask("/health")[0] == 200


@pytest.fixture
def server() -> Iterator[DevServer]:
    """A separate one, which may be stopped."""
    with DevServer() as server:
        yield server


@pytest.fixture
def running(server: DevServer) -> Iterator[Running]:
    # The service fails when the application starts.
    server.faults("register", [{"kind": "status", "status": 503}])
    with program(*UVICORN, SERVICE_URL=server.url) as process:
        assert process.stderr is not None
        while "running on" not in (line := process.stderr.readline()):
            assert line, "it has ended"
        yield Running(process, line.partition("running on ")[2].split()[0])


def test_it_starts_without_the_service_and_outlives_it(server: DevServer, running: Running) -> None:
    status, told = running.ask("/health")
    assert (status, told["state"], told["hours_left"]) in [(503, "logging in", 0.0), (200, "good", 24.0)]
    until(running.is_healthy, "a login")
    assert running.ask("/health")[1] == {"state": "good", "hours_left": 24.0, "reason": None}
    assert running.ask("/name/Ada", "POST") == (200, {"name": "Ada"})
    assert running.ask("/name/no!", "POST")[0] == 400

    # The era begins before it is announced to the application, which learns of it by a response with status
    # 401.
    server.settings(era=2)
    assert running.ask("/name/Grace", "POST") == (200, {"name": "Grace"})
    assert server.state()["counts"]["verify"] == 2

    server.stop()
    assert running.is_healthy()
    assert running.ask("/name/Joan", "POST")[0] == 503

    running.process.send_signal(signal.SIGTERM)
    # After its shutdown, uvicorn ends itself by the same signal.
    assert ended(running.process)[0] in (0, -signal.SIGTERM)

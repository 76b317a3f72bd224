"""The prefork gateway as a program: children that share one login, and how they end."""

from __future__ import annotations

import json
import os
import signal
import urllib.error
import urllib.request
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import pytest

from devserver.testing import DevServer
from examples.prefork_server import __file__ as PROGRAM
from tests.examples.programs import SECONDS, ended, line_of, program
from tests.sanitized import SANITIZER
from tests.shared.threads import Worker, until

DIRECT = urllib.request.build_opener(urllib.request.ProxyHandler({}))


needs_signals = pytest.mark.skipif(
    SANITIZER == "thread", reason="its runtime delivers no signal to the child of a fork with threads"
)


class Running:
    """The gateway, with two children."""

    def __init__(self, process: Any) -> None:
        self.process = process
        self.url = line_of(process)
        self.children: set[int] = set()
        until(self._seen_both, "an answer of each child")

    def ask(self, path: str = "/", body: bytes | None = None) -> tuple[int, dict[str, Any]]:
        try:
            with DIRECT.open(self.url + path, body, timeout=SECONDS) as answer:
                return answer.status, json.load(answer)
        except urllib.error.HTTPError as error:
            with error:
                return error.code, json.load(error)

    def _seen_both(self) -> bool:
        with ThreadPoolExecutor(4) as pool:
            self.children.update(body["child"] for _, body in pool.map(lambda _: self.ask(), range(8)))
        return len(self.children) == 2


@pytest.fixture
def running(server: DevServer) -> Iterator[Running]:
    with program(str(PROGRAM), server.url, "--port", "0", "--children", "2") as process:
        yield Running(process)


def test_children_use_the_login_of_their_parent(server: DevServer, running: Running) -> None:
    assert running.process.pid not in running.children
    answers = [running.ask("/name", b"Ada %d" % number) for number in range(8)]
    assert [(status, body["display_name"]) for status, body in answers] == [
        (200, f"Ada {number}") for number in range(8)
    ]
    assert running.ask("/name", b"no!")[0] == 400
    assert server.state()["counts"]["verify"] == 1


@needs_signals
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_on_a_signal_all_end_after_the_requests_in_hand(
    server: DevServer, running: Running, number: signal.Signals
) -> None:
    server.faults("display_name", [{"kind": "hold"}])
    asking = Worker(running.ask, "/name", b"Grace")
    server.wait_for("display_name", 1)
    running.process.send_signal(number)
    server.release()
    assert asking.result()[0] == 200
    assert ended(running.process) == (0, "", "")
    assert [child for child in running.children if os.path.exists(f"/proc/{child}")] == []


@needs_signals
def test_when_a_child_dies_the_rest_ends_and_the_status_says_so(running: Running) -> None:
    os.kill(min(running.children), signal.SIGKILL)
    assert ended(running.process) == (1, "", "")
    assert [child for child in running.children if os.path.exists(f"/proc/{child}")] == []

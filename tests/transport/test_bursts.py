"""Many threads at once: they share connections where that is quick, and nobody waits for another's answer."""

from __future__ import annotations

import socket
import threading
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
import trustme

from tests.shared.threads import Worker

from .authorities import pem
from .raw import DEADLINE, OK, RawServer
from .reference import transport
from .tls_server import context_of, serving

Raw = Callable[..., RawServer]

THREADS = 64
# Far fewer than threads, with room for those that begin while none is free.
ENOUGH = 40


@pytest.fixture
def secured(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Iterator[Raw]:
    authority = trustme.CA()
    (tmp_path / "roots.pem").write_bytes(pem(authority))
    monkeypatch.setenv("SSL_CERT_FILE", str(tmp_path / "roots.pem"))
    with serving() as start:
        yield lambda *answers, **options: start(context_of(authority), *answers, **options)


@pytest.fixture(params=["http", "https"])
def start(request: pytest.FixtureRequest) -> Raw:
    """Starts servers of each scheme in turn."""
    chosen: Raw = request.getfixturevalue({"http": "raw", "https": "secured"}[request.param])
    return chosen


def at_once(url: str) -> list[int]:
    """The statuses that as many threads get."""
    barrier = threading.Barrier(THREADS)

    def ask(which: int) -> int:
        barrier.wait(DEADLINE)
        status: int = transport("POST", f"{url}/{which}", {}, str(which))[0]
        return status

    return [worker.result() for worker in [Worker(ask, which) for which in range(THREADS)]]


def test_answers_that_come_at_once(start: Raw) -> None:
    server = start(OK, keep_alive=True)
    assert at_once(server.url) == [200] * THREADS
    assert sorted(server.request_line(which) for which in range(THREADS)) == sorted(
        f"POST /{which} HTTP/1.1" for which in range(THREADS)
    )
    assert len(server.requests) == THREADS
    assert server.connections <= ENOUGH


def test_answers_that_come_when_all_have_asked(start: Raw) -> None:
    everybody = threading.Barrier(THREADS)

    def answer(connection: socket.socket, _: threading.Event) -> None:
        everybody.wait(DEADLINE)
        connection.sendall(OK)

    server = start(answer)
    assert at_once(server.url) == [200] * THREADS
    assert (len(server.requests), server.connections) == (THREADS, THREADS)


def test_an_answer_that_does_not_come_holds_up_nobody(start: Raw) -> None:
    held, release = threading.Event(), threading.Event()

    def answer(connection: socket.socket, _: threading.Event) -> None:
        held.set()
        assert release.wait(DEADLINE)
        connection.sendall(OK)

    server = start(answer, OK)
    late = Worker(transport, "GET", server.url)
    assert held.wait(DEADLINE)
    try:
        assert at_once(server.url) == [200] * THREADS
        assert late.alive
    finally:
        release.set()
    assert late.result()[0] == 200

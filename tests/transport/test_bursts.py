"""Many concurrent threads share connections where that is faster, and none waits for another's response."""

from __future__ import annotations

import socket
import threading
from collections.abc import Callable

from tests.shared.threads import Worker

from .raw import DEADLINE, OK, RawServer
from .reference import transport

Raw = Callable[..., RawServer]

THREADS = 64


def at_once(url: str) -> list[int]:
    """The statuses that this many threads get."""
    barrier = threading.Barrier(THREADS)

    def ask(which: int) -> int:
        barrier.wait(DEADLINE)
        status: int = transport("POST", f"{url}/{which}", {}, str(which))[0]
        return status

    return [worker.result() for worker in [Worker(ask, which) for which in range(THREADS)]]


def test_answers_that_come_at_once(either_raw: Raw) -> None:
    server = either_raw(OK, keep_alive=True)
    assert at_once(server.url) == [200] * THREADS
    assert sorted(server.request_line(which) for which in range(THREADS)) == sorted(
        f"POST /{which} HTTP/1.1" for which in range(THREADS)
    )
    assert len(server.requests) == THREADS
    # How many begin while none is free depends on the machine.
    assert server.connections < THREADS


def test_answers_that_come_when_all_have_asked(either_raw: Raw) -> None:
    everybody = threading.Barrier(THREADS)

    def answer(connection: socket.socket, _: threading.Event) -> None:
        everybody.wait(DEADLINE)
        connection.sendall(OK)

    server = either_raw(answer)
    assert at_once(server.url) == [200] * THREADS
    assert (len(server.requests), server.connections) == (THREADS, THREADS)


def test_an_answer_that_does_not_come_holds_up_nobody(either_raw: Raw) -> None:
    held, release = threading.Event(), threading.Event()

    def answer(connection: socket.socket, _: threading.Event) -> None:
        held.set()
        assert release.wait(DEADLINE)
        connection.sendall(OK)

    server = either_raw(answer, OK)
    late = Worker(transport, "GET", server.url)
    assert held.wait(DEADLINE)
    try:
        assert at_once(server.url) == [200] * THREADS
        assert late.alive
    finally:
        release.set()
    assert late.result()[0] == 200

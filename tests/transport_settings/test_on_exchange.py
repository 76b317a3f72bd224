"""The callback for each exchange: what it gets, and what it may do."""

from __future__ import annotations

import gc
import logging
import threading
import time
import weakref
from collections.abc import Callable
from typing import Any

import pytest

from devserver.testing import DevServer
from tessaline import http
from tessaline.auth import AuthManager
from tests.shared.threads import Worker, within
from tests.transport.raw import CLOSE, OK, RawServer, keep_silent
from tests.transport.tunnel import says

from .readings import KEY, failure

Raw = Callable[..., RawServer]
Told = list[tuple[str, int | None, float]]

SECRET = "s3cret-of-the-exchange"
MESSAGE = "on_exchange has raised; it will be called again, but this is logged once"


def observed(**settings: Any) -> tuple[Any, Told]:
    """A transport, and what it reports."""
    told: Told = []
    return http.transport(on_exchange=lambda *facts: told.append(facts), **settings), told


def facts(told: Told) -> list[tuple[str, int | None]]:
    return [(path, status) for path, status, _ in told]


@pytest.mark.parametrize(
    ("target", "path"),
    [
        ("", "/"),
        ("/", "/"),
        ("/v2/auth/verify", "/v2/auth/verify"),
        (f"/a/b?token={SECRET}", "/a/b"),
        (f"/a#{SECRET}", "/a"),
        (f"?{SECRET}/x", "/"),
        (f"#{SECRET}/x", "/"),
        (f"/a?{SECRET}#{SECRET}/?", "/a"),
        (f"/a#{SECRET}?/b", "/a"),
        ("//a//b/", "//a//b/"),
        ("/a?b://c/d", "/a"),
    ],
)
def test_the_path_without_what_follows_it(target: str, path: str, raw: Raw) -> None:
    transport, told = observed()
    assert transport("GET", raw().url + target)[0] == 200
    assert facts(told) == [(path, 200)]


@pytest.mark.parametrize("status", [200, 204, 401, 429, 503])
def test_every_status(status: int, raw: Raw) -> None:
    transport, told = observed(longest_retry_after=60)
    answer = transport("POST", raw(says(status, "Retry-After: 86400")).url, {"Authorization": SECRET}, SECRET)
    assert (answer[0], answer[1]["Retry-After"]) == (status, "60")
    assert facts(told) == [("/", status)]


def test_the_seconds_that_it_took(raw: Raw) -> None:
    def answer_later(connection: Any, stopped: threading.Event) -> None:
        stopped.wait(0.1)
        connection.sendall(OK)

    transport, told = observed()
    begun = time.perf_counter()
    assert transport("GET", raw(answer_later).url)[0] == 200
    assert 0.1 <= told[0][2] <= time.perf_counter() - begun


def test_redirects_are_part_of_the_exchange(raw: Raw) -> None:
    transport, told = observed()
    assert transport("GET", raw(says(302, "Location: /there"), OK).url + "/here")[0] == 200
    assert facts(told) == [("/here", 200)]


@pytest.mark.parametrize(
    "answer", [CLOSE, b"220 mail.example ready\r\n\r\n", b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\ncut"]
)
def test_no_status_where_no_answer_came(answer: bytes, raw: Raw) -> None:
    transport, told = observed()
    failure(transport, "GET", raw(answer).url + "/a")
    assert facts(told) == [("/a", None)]


def test_no_status_after_a_time_out(raw: Raw) -> None:
    transport, told = observed(timeout=0.1)
    assert isinstance(failure(transport, "GET", raw(keep_silent).url), TimeoutError)
    assert told[0][2] >= 0.1
    assert facts(told) == [("/", None)]


@pytest.mark.parametrize(
    ("url", "path"),
    [("ftp://localhost/a", "/a"), ("nowhere/a", "/"), ("http://localhost/ ?a", "/ "), ("", "/")],
)
def test_no_status_of_what_cannot_be_sent(url: str, path: str) -> None:
    transport, told = observed()
    assert type(failure(transport, "GET", url)) is ValueError
    assert facts(told) == [(path, None)]


def test_a_call_with_wrong_arguments_is_no_exchange() -> None:
    transport, told = observed()
    for args in (("GET",), ("GET", None), ("GET", "http://localhost/", 7)):
        assert type(failure(transport, *args)) is TypeError
    assert told == []


def test_a_login_is_three_exchanges(server: DevServer) -> None:
    transport, told = observed()
    with AuthManager(KEY, server.url, _transport=transport) as manager:
        manager.authenticate()
    paths = ["/auth/register", "/auth/challenge", "/auth/verify"]
    assert facts(told) == [(path, 200) for path in paths]


def test_no_lock_is_held(server: DevServer) -> None:
    free: list[bool] = []

    def look(*_: object) -> None:
        def take() -> bool:
            taken: bool = manager._lock.acquire(timeout=5.0)
            if taken:
                manager._lock.release()
            return taken

        free.append(Worker(take).result())
        inner.append(plain("GET", server.url + "/_echo")[0])

    inner: list[int] = []
    plain = http.transport()
    with AuthManager(KEY, server.url, _transport=http.transport(on_exchange=look)) as manager:
        within(20.0, manager.authenticate)
    assert free == [True] * 3
    assert inner == [200] * 3


def test_it_may_close_the_manager(server: DevServer) -> None:
    def close(*_: object) -> None:
        manager.close()

    manager = AuthManager(KEY, server.url, _transport=http.transport(on_exchange=close))
    error = Worker(manager.authenticate).failure()
    assert str(error) == "manager_closed"


def raise_always(*_: object) -> None:
    raise RuntimeError("a bug of the program")


def test_what_it_raises_is_logged_once_and_ignored(raw: Raw, caplog: pytest.LogCaptureFixture) -> None:
    calls = []

    def count_and_raise(*given: object) -> None:
        calls.append(given)
        raise_always()

    transport = http.transport(on_exchange=count_and_raise)
    with caplog.at_level(logging.DEBUG, logger="tessaline"):
        for _ in range(3):
            assert transport("POST", raw().url, headers={"Authorization": SECRET}, body=SECRET)[0] == 200
    assert len(calls) == 3
    (record,) = caplog.records
    assert (record.name, record.levelno, record.getMessage()) == ("tessaline.http", logging.ERROR, MESSAGE)
    assert "a bug of the program" in caplog.text
    if SECRET in caplog.text:
        raise AssertionError("the log shows what was sent")


@pytest.mark.parametrize(("kind", "ignored"), [(RuntimeError, True), (SystemExit, False)])
def test_a_filter_of_the_log_that_raises(kind: type[BaseException], ignored: bool, raw: Raw) -> None:
    def refuse(_: logging.LogRecord) -> bool:
        raise kind("a bug of the filter")

    logger = logging.getLogger("tessaline.http")
    transport = http.transport(on_exchange=raise_always)
    logger.addFilter(refuse)
    try:
        if ignored:
            assert transport("GET", raw().url)[0] == 200
        else:
            assert type(failure(transport, "GET", raw().url)) is kind
    finally:
        logger.removeFilter(refuse)


def test_each_transport_has_its_own_first_time(raw: Raw, caplog: pytest.LogCaptureFixture) -> None:
    server = raw()
    for _ in range(2):
        transport = http.transport(on_exchange=raise_always)
        workers = [Worker(transport, "GET", server.url) for _ in range(8)]
        assert [worker.result()[0] for worker in workers] == [200] * 8
    assert [record.getMessage() for record in caplog.records] == [MESSAGE] * 2


def test_the_error_of_the_exchange_comes_out(unused_port: int, caplog: pytest.LogCaptureFixture) -> None:
    transport = http.transport(on_exchange=raise_always)
    error = failure(transport, "GET", f"http://127.0.0.1:{unused_port}/")
    assert type(error) is ConnectionRefusedError
    assert (error.__context__, error.__cause__) == (None, None)
    assert [record.getMessage() for record in caplog.records] == [MESSAGE]


def test_what_ends_a_program_is_not_ignored(raw: Raw, caplog: pytest.LogCaptureFixture) -> None:
    def stop(*_: object) -> None:
        raise SystemExit(3)

    assert type(failure(http.transport(on_exchange=stop), "GET", raw().url)) is SystemExit
    assert caplog.records == []


def test_a_program_that_goes_round_in_circles_leaves_nothing() -> None:
    class Holder:
        transport: Any

        def look(self, *_: object) -> None: ...

    holder = Holder()
    holder.transport = http.transport(on_exchange=holder.look, longest_retry_after=60)
    left = weakref.ref(holder)
    del holder
    gc.collect()
    assert left() is None

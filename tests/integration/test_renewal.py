"""The refresh thread over real HTTP, driven by an injected clock."""

from __future__ import annotations

import threading
from collections.abc import Callable

import pytest

from devserver.testing import DevServer
from tessaline import auth
from tests.shared.threads import DEADLINE, Worker, until

from .support import Harness, descriptors, wire

Make = Callable[..., Harness]


@pytest.fixture
def one(either: DevServer, harness: Make) -> Harness:
    """A manager that has logged in."""
    logged_in = harness(either)
    logged_in.manager.authenticate()
    logged_in.forget()
    return logged_in


def ended(thread: threading.Thread) -> bool:
    thread.join(DEADLINE)
    return not thread.is_alive()


def test_a_server_that_is_stopped_and_comes_back(harness: Make) -> None:
    identity = ["--jwt-secret", "the secret of a server that comes back"]
    with DevServer(options=identity) as first:
        one = harness(first)
        manager = one.manager
        manager.authenticate()
        old = manager.get_token()
        port = first.port
    backing_off, go_on = threading.Event(), threading.Event()

    def wait(seconds: float) -> None:
        one.delays.append(seconds)
        backing_off.set()
        assert go_on.wait(2 * DEADLINE)

    manager._wait_with_clock = wait
    one.trigger_refresh()
    assert backing_off.wait(DEADLINE)
    assert manager.get_token() == old
    try:
        with DevServer(options=[*identity, "--port", str(port)]) as second:
            go_on.set()
            until(lambda: manager._token != old, "a new token")
            assert one.delays == [1]
            assert wire(second) == {"register": 1, "challenge": 1, "verify": 1}
            manager.close()
    finally:
        go_on.set()


def test_a_nudge_by_a_caller_renews_at_once(server: DevServer, harness: Make) -> None:
    # On the wall clock the thread would sleep for hours.
    manager = auth.AuthManager("22" * 32, server.url)
    with manager:
        manager.authenticate()
        old, thread = manager.get_token(), manager._refresh_thread
        assert manager._refresh_event.is_set() is False
        manager._refresh_at = manager._auth_time
        fresh = Worker(manager.get_token).result()
        assert ended(thread)
        assert manager._token != old
        assert fresh == manager._token
        assert wire(server)["verify"] == 2


def test_renewals_leave_nothing_open(one: Harness, either: DevServer) -> None:
    manager = one.manager
    counts = []
    for _ in range(5):
        token = manager._token
        one.trigger_refresh()
        until(lambda token=token: manager._token != token)  # type: ignore[misc]
        until(lambda: manager._refresh_thread.is_alive())
        threads = [thread for thread in threading.enumerate() if thread is not threading.main_thread()]
        until(lambda: sum(thread.is_alive() for thread in threading.enumerate()) <= 2)
        assert len(threads) <= 2
        counts.append(descriptors())
    assert counts[-1] <= counts[0]

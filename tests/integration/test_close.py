"""Closing a manager during its requests: waiters wake, nothing is stored, nothing starts."""

from __future__ import annotations

import time
from collections.abc import Callable

import pytest

from devserver.testing import DevServer
from tests.shared.threads import Worker, until, waiters

from .support import Harness, descriptors, reason_of, wire

Make = Callable[..., Harness]

AT_ONCE = 0.5
CLOSE_AT_MOST = 1.5


def close(one: Harness) -> tuple[float, float]:
    """When closing began and ended; afterwards there are no credentials."""
    begun = time.monotonic()
    Worker(one.manager.close).result(timeout=5.0)
    ended = time.monotonic()
    manager = one.manager
    assert manager._state == "CLOSED"
    assert ended - begun < CLOSE_AT_MOST
    fields = ("_private_key", "_token", "_wallet_secret", "_token_iat", "_token_expiry", "_refresh_thread")
    assert {name: getattr(manager, name) for name in fields} == dict.fromkeys(fields)
    return begun, ended


def assert_woken(one: Harness, workers: list[Worker], begun: float) -> None:
    for worker in workers:
        assert reason_of(one.discreet(worker.failure())) == "manager_closed"
        assert worker.ended_at is not None
        assert worker.ended_at - begun < AT_ONCE


def assert_stays_closed(one: Harness) -> None:
    manager = one.manager
    assert manager._state == "CLOSED"
    assert manager._token is None
    assert manager._wallet_secret is None
    assert manager._close_event.is_set()
    for call in (
        manager.authenticate,
        manager.get_token,
        manager.get_wallet_secret,
        manager.get_token_expiry,
    ):
        assert reason_of(one.failure(call)) == "manager_closed"
    assert reason_of(one.failure(manager.notify_era_change, 9)) == "manager_closed"
    assert manager.get_wallet_address().startswith("0x")
    assert manager.close() is None


@pytest.mark.parametrize("logged_in", [False, True], ids=["first_login", "renewed_login"])
def test_during_a_login(logged_in: bool, either: DevServer, harness: Make) -> None:
    one = harness(either)
    manager = one.manager
    if logged_in:
        manager.authenticate()
    already = wire(either)
    either.faults("challenge", [{"kind": "hold"}])
    runner = Worker(manager.authenticate)
    either.wait_for("challenge", already.get("challenge", 0) + 1)
    event = manager._auth_event
    waiting = [Worker(manager.authenticate), Worker(manager.get_token), Worker(manager.get_token)]
    until(lambda: waiters(event) == len(waiting))
    begun, _ = close(one)
    assert_woken(one, waiting, begun)
    assert runner.ended_at is None
    came = wire(either)
    either.release()
    assert reason_of(one.discreet(runner.failure())) == "manager_closed"
    assert wire(either) == came
    assert_stays_closed(one)


def test_during_a_refresh(either: DevServer, harness: Make) -> None:
    one = harness(either)
    manager = one.manager
    manager.authenticate()
    thread = manager._refresh_thread
    either.faults("verify", [{"kind": "hold"}])
    one.trigger_refresh()
    either.wait_for("verify", 2)
    event = manager._auth_event
    waiting = [Worker(manager.authenticate), Worker(manager.get_token), Worker(manager.get_token)]
    until(lambda: waiters(event) == len(waiting))
    begun, ended = close(one)
    assert_woken(one, waiting, begun)
    # The only wait of close(): for a thread that is inside a request.
    assert ended - begun >= 1.0
    assert thread.is_alive()
    came = wire(either)
    either.release()
    thread.join(10)
    assert not thread.is_alive()
    assert wire(either) == came
    assert_stays_closed(one)


def test_closing_in_the_middle_of_things_leaves_nothing_open(server: DevServer, harness: Make) -> None:
    def interrupted_login() -> None:
        one = harness(server)
        already = server.state()["counts"]["challenge"]
        server.faults("challenge", [{"kind": "hold"}])
        runner = Worker(one.manager.authenticate)
        server.wait_for("challenge", already + 1)
        one.manager.close()
        server.release()
        assert reason_of(one.discreet(runner.failure())) == "manager_closed"

    interrupted_login()
    files = descriptors()
    for _ in range(5):
        interrupted_login()
    assert descriptors() <= files

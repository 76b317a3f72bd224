"""Closing a manager while it is busy with the server: waiters wake, nothing is stored, nothing starts."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from typing import Any

import pytest

from devserver.testing import DevServer
from tests.shared.threads import Worker, until, waiters

from .support import CreepingClock, Harness, descriptors, reason_of, wire

Make = Callable[..., Harness]

AT_ONCE = 0.5
CLOSE_AT_MOST = 1.5
FLOW = ("register", "challenge", "verify")


def close(one: Harness) -> tuple[float, float]:
    """When closing began and ended; the credentials are gone after it."""
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


@pytest.mark.parametrize("at", FLOW)
@pytest.mark.parametrize("logged_in", [False, True], ids=["first_login", "renewed_login"])
def test_during_a_login(at: str, logged_in: bool, either: DevServer, harness: Make) -> None:
    one = harness(either)
    manager = one.manager
    if logged_in:
        manager.authenticate()
    already = wire(either)
    either.faults(at, [{"kind": "hold"}])
    runner = Worker(manager.authenticate)
    either.wait_for(at, already.get(at, 0) + 1)
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


@pytest.mark.parametrize("at", FLOW)
def test_during_a_refresh(at: str, either: DevServer, harness: Make) -> None:
    one = harness(either)
    manager = one.manager
    manager.authenticate()
    thread = manager._refresh_thread
    either.faults(at, [{"kind": "hold"}])
    one.trigger_refresh()
    either.wait_for(at, 2)
    event = manager._auth_event
    waiting = [Worker(manager.authenticate), Worker(manager.get_token), Worker(manager.get_token)]
    until(lambda: waiters(event) == len(waiting))
    begun, ended = close(one)
    assert_woken(one, waiting, begun)
    # The one wait that closing has: for a thread that is inside a request.
    assert ended - begun >= 1.0
    assert thread.is_alive()
    came = wire(either)
    either.release()
    thread.join(10)
    assert not thread.is_alive()
    assert wire(either) == came
    assert_stays_closed(one)


@pytest.mark.parametrize("at", FLOW)
def test_during_an_era_change(at: str, either: DevServer, harness: Make) -> None:
    before = set(threading.enumerate())
    one = harness(either)
    manager = one.manager
    manager.authenticate()
    either.settings(era=2)
    either.faults(at, [{"kind": "hold"}])
    manager.notify_era_change(2)
    either.wait_for(at, 2)
    event = manager._auth_event
    waiting = [Worker(manager.authenticate), Worker(manager.get_token)]
    until(lambda: waiters(event) == len(waiting))
    begun, ended = close(one)
    assert_woken(one, waiting, begun)
    assert ended - begun < AT_ONCE
    came = wire(either)
    either.release()
    until(lambda: before.issuperset(threading.enumerate()))
    assert wire(either) == came
    assert_stays_closed(one)


def test_during_the_back_off_of_a_login(server: DevServer, harness: Make) -> None:
    one = harness(server, clock=CreepingClock())
    manager = one.manager
    del manager._wait_with_clock
    server.faults("challenge", [{"kind": "status", "status": 429, "headers": {"Retry-After": "3600"}}])
    runner = Worker(manager.authenticate)
    until(lambda: manager._in_transient_backoff)
    event = manager._auth_event
    waiting = [Worker(manager.authenticate), Worker(manager.get_token)]
    until(lambda: waiters(event) == len(waiting))
    begun, ended = close(one)
    assert_woken(one, [runner, *waiting], begun)
    assert ended - begun < AT_ONCE
    assert manager._in_transient_backoff is False
    assert wire(server) == {"register": 1, "challenge": 1}
    assert_stays_closed(one)


def test_during_the_back_off_of_a_refresh(server: DevServer, harness: Make) -> None:
    one = harness(server, clock=CreepingClock())
    manager = one.manager
    del manager._wait_with_clock
    manager.authenticate()
    thread = manager._refresh_thread
    server.faults("verify", [{"kind": "status", "status": 429, "headers": {"Retry-After": "3600"}}])
    one.trigger_refresh()
    until(lambda: manager._in_transient_backoff)
    event = manager._auth_event
    asker = Worker(manager.authenticate)
    until(lambda: waiters(event) == 1)
    begun, ended = close(one)
    assert_woken(one, [asker], begun)
    assert ended - begun < AT_ONCE
    assert not thread.is_alive()
    assert wire(server)["verify"] == 2
    assert_stays_closed(one)


def test_while_a_caller_waits_for_a_refresh_that_nobody_makes(server: DevServer, harness: Make) -> None:
    one = harness(server)
    manager = one.manager
    manager.authenticate()
    thread = manager._refresh_thread
    manager._refresh_stop.set()
    manager._refresh_event.set()
    thread.join(10)
    assert not thread.is_alive()
    manager._refresh_done.clear()
    one.trigger_refresh()
    reader = Worker(manager.get_token)
    until(lambda: waiters(manager._refresh_done) == 1)
    begun, _ = close(one)
    assert_woken(one, [reader], begun)


def test_while_a_caller_polls_after_the_expiry(server: DevServer, harness: Make) -> None:
    one = harness(server)
    manager = one.manager
    manager.authenticate()
    manager._refresh_stop.set()
    manager._refresh_event.set()
    manager._refresh_thread.join(10)
    manager._refresh_event.clear()
    one.clock.now += 100_000
    reader = Worker(manager.get_token)
    until(manager._refresh_event.is_set)
    begun, _ = close(one)
    assert_woken(one, [reader], begun)


def test_during_a_display_name(server: DevServer, harness: Make) -> None:
    one = harness(server)
    one.manager.authenticate()
    server.faults("display_name", [{"kind": "status", "status": 503, "hold": True}])
    renamer = Worker(one.manager.set_display_name, "Ada")
    server.wait_for("display_name", 1)
    close(one)
    server.release()
    # The wait for the next try sees the closed manager.
    assert reason_of(one.discreet(renamer.failure())) == "manager_closed"
    assert wire(server)["display_name"] == 1


def test_by_many_threads_at_once(server: DevServer, harness: Make) -> None:
    one = harness(server)
    one.manager.authenticate()
    together = threading.Barrier(16)

    def close_together() -> None:
        together.wait(10)
        one.manager.close()

    for worker in [Worker(close_together) for _ in range(16)]:
        assert worker.result() is None
    assert_stays_closed(one)


def test_by_the_refresh_thread_itself(server: DevServer, harness: Make) -> None:
    one = harness(server)
    manager = one.manager
    manager.authenticate()
    thread = manager._refresh_thread
    took: list[float] = []

    def closing(*_args: Any, **_options: Any) -> Any:
        begun = time.monotonic()
        manager.close()
        took.append(time.monotonic() - begun)
        raise ConnectionResetError

    manager._transport = closing
    one.trigger_refresh()
    thread.join(10)
    assert not thread.is_alive()
    assert len(took) == 1
    assert took[0] < AT_ONCE
    assert_stays_closed(one)


def test_an_idle_manager_closes_at_once_and_its_thread_ends(either: DevServer, harness: Make) -> None:
    one = harness(either)
    one.manager.authenticate()
    thread = one.manager._refresh_thread
    begun, ended = close(one)
    assert ended - begun < AT_ONCE
    assert not thread.is_alive()
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

"""The refresh thread over real HTTP, driven by an injected clock."""

from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

import pytest

from devserver.testing import DevServer
from tessaline import auth
from tests.shared.threads import DEADLINE, Worker, until, waiters

from .support import Harness, descriptors, reason_of, wire

Make = Callable[..., Harness]

LIFETIME = 86_400


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


def test_the_token_is_renewed_when_the_refresh_point_has_passed(one: Harness, either: DevServer) -> None:
    manager = one.manager
    for turn in range(2, 5):
        token, thread = manager.get_token(), manager._refresh_thread
        one.trigger_refresh()
        until(lambda token=token: manager._token != token, "a new token")  # type: ignore[misc]
        assert ended(thread)
        until(lambda thread=thread: manager._refresh_thread is not thread)  # type: ignore[misc]
        assert manager._refresh_thread.is_alive()
        assert manager._state == "AUTHENTICATED"
        assert manager.get_token_expiry() == one.clock.now + LIFETIME
        assert wire(either) == dict.fromkeys(("register", "challenge", "verify"), turn)


def test_no_request_is_made_before_the_refresh_point(one: Harness, either: DevServer) -> None:
    manager = one.manager
    before = wire(either)
    one.clock.now = manager._refresh_at - 0.001
    reading = threading.Event()
    manager._clock = lambda: reading.set() or one.clock.now
    assert reading.wait(DEADLINE)
    reading.clear()
    assert reading.wait(DEADLINE)
    assert wire(either) == before
    one.clock.now = manager._refresh_at
    until(lambda: wire(either)["verify"] == 2)


def test_callers_wait_for_a_refresh_and_get_the_new_token(one: Harness, either: DevServer) -> None:
    manager = one.manager
    old = manager.get_token()
    either.faults("verify", [{"kind": "hold"}])
    one.trigger_refresh()
    either.wait_for("verify", 2)
    assert (manager._state, manager._reauth_mode) == ("RE_AUTHENTICATING", "PROACTIVE")
    event = manager._auth_event
    readers = [Worker(manager.get_token) for _ in range(8)]
    until(lambda: waiters(event) == len(readers))
    assert len(manager.get_wallet_secret()) == 32
    either.release()
    assert len({reader.result() for reader in readers} - {old}) == 1


@pytest.mark.parametrize("endpoint", ["register", "challenge", "verify"])
@pytest.mark.parametrize(
    ("fault", "reason", "permanent"),
    [
        (
            {"kind": "status", "status": 400},
            {"register": "invalid_address", "*": "invalid_request"},
            "register",
        ),
        ({"kind": "status", "status": 401}, {"verify": "signature_mismatch", "*": "unauthorized"}, "verify"),
        ({"kind": "reset", "times": None}, {"*": "Server unreachable after 3 attempts"}, None),
    ],
    ids=["bad_request", "unauthorized", "reset"],
)
def test_a_refresh_that_fails(
    endpoint: str,
    fault: dict[str, Any],
    reason: dict[str, str],
    permanent: str | None,
    server: DevServer,
    harness: Make,
) -> None:
    one = harness(server)
    manager = one.manager
    manager.authenticate()
    one.forget()
    old, secret, thread = manager._token, manager._wallet_secret, manager._refresh_thread
    server.faults(endpoint, [fault])
    one.trigger_refresh()
    assert ended(thread)
    assert manager._state == "UNINITIALIZED"
    assert manager._reauth_mode is None
    assert manager._refresh_done.is_set()
    assert manager._auth_event.is_set()
    assert (manager._token, manager._wallet_secret) == (old, secret)
    assert manager._permanent_refresh_error is (endpoint == permanent)
    assert reason_of(one.discreet(manager._auth_error)) == reason.get(endpoint, reason["*"])
    assert one.delays == ([1, 2] if fault["kind"] == "reset" else [])
    assert reason_of(one.failure(manager.get_token)) == "not_authenticated"
    assert manager._refresh_thread is thread

    server.faults(endpoint, [])
    manager.authenticate()
    assert manager.get_token() != old
    assert manager._permanent_refresh_error is False
    assert manager._refresh_thread.is_alive()


def test_a_waiting_caller_hears_of_a_refresh_that_fails(one: Harness, either: DevServer) -> None:
    manager = one.manager
    either.faults("challenge", [{"kind": "status", "status": 401, "hold": True}])
    one.trigger_refresh()
    either.wait_for("challenge", 2)
    event = manager._auth_event
    reader, asker = Worker(manager.get_token), Worker(manager.authenticate)
    until(lambda: waiters(event) == 2)
    either.release()
    error = one.discreet(reader.failure())
    assert reason_of(error) == "unauthorized"
    assert asker.failure() is error
    assert manager._auth_error is error


def test_a_changed_wallet_secret_does_not_get_in(one: Harness, either: DevServer) -> None:
    manager = one.manager
    old, secret, thread = manager._token, manager._wallet_secret, manager._refresh_thread
    either.faults("verify", [{"kind": "changed_secret"}])
    one.trigger_refresh()
    assert ended(thread)
    assert reason_of(manager._auth_error) == "wallet_secret_changed"
    assert (manager._token, manager._wallet_secret) == (old, secret)


def test_the_old_token_is_served_while_the_server_is_away(one: Harness, either: DevServer) -> None:
    manager = one.manager
    old = manager.get_token()
    backing_off, go_on = threading.Event(), threading.Event()

    def wait(seconds: float) -> None:
        one.delays.append(seconds)
        backing_off.set()
        assert go_on.wait(DEADLINE)

    manager._wait_with_clock = wait
    either.faults("*", [{"kind": "reset", "times": 2}])
    one.trigger_refresh()
    assert backing_off.wait(DEADLINE)
    assert (manager._state, manager._reauth_mode) == ("RE_AUTHENTICATING", "PROACTIVE")
    assert manager._in_transient_backoff is True
    assert {Worker(manager.get_token).result() for _ in range(4)} == {old}
    go_on.set()
    until(lambda: manager._token != old, "a new token")
    assert one.delays[0] == 1
    assert manager._in_transient_backoff is False


def test_an_expired_token_is_not_served_while_the_server_is_away(one: Harness, either: DevServer) -> None:
    manager = one.manager
    backing_off, go_on = threading.Event(), threading.Event()

    def wait(_seconds: float) -> None:
        backing_off.set()
        assert go_on.wait(DEADLINE)

    manager._wait_with_clock = wait  # type: ignore[assignment]
    either.faults("register", [{"kind": "status", "status": 503}])
    one.trigger_refresh()
    assert backing_off.wait(DEADLINE)
    old, event = manager._token, manager._auth_event
    one.clock.now += LIFETIME
    reader = Worker(manager.get_token)
    until(lambda: waiters(event) == 1)
    go_on.set()
    assert reader.result() not in (None, old)


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
    # With the machine's clock the thread would sleep for hours.
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


def test_the_first_call_after_a_suspended_machine_renews(server: DevServer) -> None:
    with auth.AuthManager("33" * 32, server.url) as manager:
        manager.authenticate()
        old = manager.get_token()
        shift = 2 * LIFETIME
        for field in ("_auth_time", "_token_iat", "_token_expiry", "_refresh_at"):
            setattr(manager, field, getattr(manager, field) - shift)
        fresh = Worker(manager.get_token).result()
        assert fresh != old
        assert manager.get_token() == fresh
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

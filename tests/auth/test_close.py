"""Closing: what it clears, whom it wakes, how long it takes, and that it is final."""

from __future__ import annotations

import os
import secrets
import subprocess
import sys
import textwrap
import threading
import time
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth
from tests.sanitized import patience, searches_all_memory
from tests.shared.threads import Worker, join, until, waiters

from .helpers.clocks import ScriptedEvent, SteppedClock
from .helpers.managers import ADDRESS, changes, reason_of, refresh_threads, snapshot
from .helpers.server import CHALLENGE, REGISTER, VERIFY, Answer, FakeServer

STATES = ["UNINITIALIZED", "AUTHENTICATING", "AUTHENTICATED", "RE_AUTHENTICATING", "BOGUS"]
CLEARED = ("_private_key", "_token", "_wallet_secret", "_token_iat", "_token_expiry", "_refresh_thread")
PROMPT = patience(0.5)


class FakeThread:
    """A thread that only writes down how it is joined."""

    def __init__(self, on_join: Callable[[], None] | None = None) -> None:
        self.joins: list[Any] = []
        self.on_join = on_join

    def join(self, *args: Any, **kwargs: Any) -> None:
        self.joins.append((args, kwargs))
        if self.on_join is not None:
            self.on_join()

    def is_alive(self) -> bool:
        return True


def test_docstring() -> None:
    first = auth.AuthManager.close.__doc__.splitlines()[0]
    assert first == "Stop refresh, clear sensitive material, transition to CLOSED."


@pytest.mark.parametrize("state", STATES)
def test_close_from_any_state_ends_in_closed_and_clears_everything(manager: Any, state: str) -> None:
    manager._state = state
    manager._reauth_mode = "ERA_CHANGE"
    manager._pending_era_number = 5
    for name in CLEARED[1:5]:
        setattr(manager, name, 1)
    assert manager.close() is None
    assert manager._state == "CLOSED"
    assert manager._reauth_mode is None
    assert manager._pending_era_number is None
    assert [getattr(manager, name) for name in CLEARED] == [None] * len(CLEARED)
    for name in ("_close_event", "_refresh_stop", "_refresh_event", "_refresh_done"):
        assert getattr(manager, name).is_set(), name
    assert not manager._lock.locked()


def test_close_on_a_never_authenticated_manager_has_no_thread_to_join(manager: Any) -> None:
    manager.close()
    assert manager._state == "CLOSED"
    assert manager._refresh_thread is None
    assert manager._auth_event is None
    assert manager._auth_error is None


def test_close_with_an_event_stores_manager_closed_and_sets_it(manager: Any) -> None:
    event = manager._auth_event = threading.Event()
    manager._auth_error = auth.AuthError(reason="old")
    manager.close()
    assert reason_of(manager._auth_error) == "manager_closed"
    assert manager._auth_event is event and event.is_set()


def test_close_without_an_event_leaves_the_stored_error(manager: Any) -> None:
    old = manager._auth_error = auth.AuthError(reason="old")
    manager.close()
    assert manager._auth_error is old


def test_close_leaves_what_it_does_not_own(manager: Any) -> None:
    manager._refresh_at = 5.0
    manager._auth_time = 4.0
    manager._invite_code = "code"
    before = snapshot(manager)
    manager.close()
    assert changes(before, snapshot(manager)) == {
        "_state",
        "_private_key",
        "_close_event is set",
        "_refresh_stop is set",
        "_refresh_event is set",
        "_refresh_done is set",
    }


def test_the_events_are_set_in_order_with_the_state_closed_and_the_lock_free(manager: Any) -> None:
    seen: list[Any] = []

    class Named(threading.Event):
        name = ""

        def set(self) -> None:
            seen.append((self.name, manager._state, manager._lock.locked(), manager._private_key is None))
            super().set()

    for name in ("_close_event", "_refresh_stop", "_refresh_event"):
        event = Named()
        event.name = name
        setattr(manager, name, event)
    manager.close()
    assert seen == [
        ("_close_event", "CLOSED", False, False),
        ("_refresh_stop", "CLOSED", False, False),
        ("_refresh_event", "CLOSED", False, False),
    ]


def test_the_waiters_event_is_set_under_the_lock_after_the_stop_events(manager: Any) -> None:
    seen: list[Any] = []

    class Watched(threading.Event):
        def set(self) -> None:
            seen.append((manager._lock.locked(), manager._refresh_event.is_set(), manager._auth_error.reason))
            super().set()

    manager._auth_event = Watched()
    manager.close()
    assert seen == [(True, True, "manager_closed")]


def test_a_step_that_fails_keeps_no_other_from_being_taken_and_the_first_failure_is_raised(
    manager: Any,
) -> None:
    class Broken(threading.Event):
        def set(self) -> None:
            raise errors.pop(0)

    first = ValueError("first")
    errors = [first, ValueError("second")]
    manager._close_event, manager._refresh_event = Broken(), Broken()
    event = manager._auth_event = threading.Event()
    with pytest.raises(ValueError) as caught:
        manager.close()
    assert caught.value is first
    assert errors == []
    assert manager._refresh_stop.is_set() and event.is_set()
    assert manager._private_key is None


# The refresh thread


def test_the_refresh_thread_is_joined_for_at_most_a_second_after_the_clearing(manager: Any) -> None:
    seen: list[Any] = []
    thread = manager._refresh_thread = FakeThread(
        lambda: seen.append((manager._private_key, manager._token, manager._lock.locked()))
    )
    manager._token = "token"
    manager.close()
    assert thread.joins == [((), {"timeout": 1.0})]
    assert seen == [(None, None, False)]
    assert manager._refresh_thread is None


def test_closing_twice_returns_at_once_and_joins_nothing(manager: Any) -> None:
    manager.close()
    thread = manager._refresh_thread = FakeThread()
    before = snapshot(manager)
    manager.close()
    assert thread.joins == []
    assert changes(before, snapshot(manager)) == set()


def test_the_calling_thread_is_not_joined(manager: Any) -> None:
    manager._refresh_thread = threading.current_thread()
    Worker(lambda: None).finish()
    manager.close()
    assert manager._refresh_thread is None


def test_close_ends_the_live_refresh_thread(logged_in: Any) -> None:
    thread = logged_in._refresh_thread
    begun = time.monotonic()
    logged_in.close()
    assert time.monotonic() - begun < PROMPT
    assert not thread.is_alive()
    assert refresh_threads(logged_in) == []


def test_close_ends_a_refresh_thread_in_its_long_wait_at_once(make_manager: Callable[..., Any]) -> None:
    manager = make_manager()
    manager._clock, manager._uses_injected_clock = time.time, False
    manager.authenticate()
    thread = manager._refresh_thread
    until(lambda: waiters(manager._refresh_event) == 1, what="the long wait")
    begun = time.monotonic()
    manager.close()
    assert time.monotonic() - begun < PROMPT
    assert not thread.is_alive()


def test_close_from_inside_the_refresh_thread_returns_without_joining(
    logged_in: Any, server: FakeServer, clock: SteppedClock
) -> None:
    took: list[float] = []

    def close(call: Any) -> None:
        begun = time.monotonic()
        logged_in.close()
        took.append(time.monotonic() - begun)

    server.script(VERIFY, close)
    thread = logged_in._refresh_thread
    clock.now = logged_in._refresh_at
    join(thread)
    assert len(took) == 1 and took[0] < PROMPT
    assert logged_in._state == "CLOSED"
    assert logged_in._token is None
    assert refresh_threads(logged_in) == []


def test_close_waits_about_a_second_for_a_refresh_inside_a_request(
    logged_in: Any, server: FakeServer, clock: SteppedClock
) -> None:
    gate = server.hold(CHALLENGE)
    thread = logged_in._refresh_thread
    clock.now = logged_in._refresh_at
    gate.reached()
    begun = time.monotonic()
    logged_in.close()
    assert 0.95 <= time.monotonic() - begun < 2.0
    assert thread.is_alive()
    assert logged_in._refresh_thread is None
    gate.release()
    join(thread)
    assert logged_in._state == "CLOSED"
    assert logged_in._token is None
    assert server.count(VERIFY) == 1


def test_a_refresh_in_backoff_ends_with_the_close(
    logged_in: Any, server: FakeServer, clock: SteppedClock
) -> None:
    logged_in._clock = lambda: time.monotonic() * 1000 + 1e9
    server.always(REGISTER, Answer(429, b"", {"Retry-After": "100000000"}))
    thread = logged_in._refresh_thread
    until(lambda: logged_in._in_transient_backoff, what="the back-off")
    begun = time.monotonic()
    logged_in.close()
    join(thread, PROMPT)
    assert time.monotonic() - begun < PROMPT
    assert logged_in._in_transient_backoff is False


# Waiters


def test_close_while_a_caller_blocks_in_get_token_during_an_authentication_ends_it_with_manager_closed(
    manager: Any, server: FakeServer
) -> None:
    gate = server.hold(CHALLENGE)
    runner = Worker(manager.authenticate)
    gate.reached()
    callers = [Worker(manager.get_token) for _ in range(5)]
    others = [Worker(manager.authenticate) for _ in range(5)]
    until(lambda: waiters(manager._auth_event) == 10, what="the waiters")
    begun = time.monotonic()
    manager.close()
    for worker in [*callers, *others]:
        assert reason_of(worker.failure(PROMPT)) == "manager_closed"
    assert time.monotonic() - begun < PROMPT
    gate.release()
    assert reason_of(runner.failure()) == "manager_closed"
    assert manager._state == "CLOSED"
    assert manager._token is None
    assert refresh_threads(manager) == []


def test_close_wakes_a_login_in_backoff(make_manager: Callable[..., Any], server: FakeServer) -> None:
    manager = make_manager(clock=time.time)
    server.always(REGISTER, Answer(503))
    runner = Worker(manager.authenticate)
    until(lambda: manager._in_transient_backoff, what="the back-off")
    manager.close()
    assert reason_of(runner.failure(PROMPT)) == "manager_closed"
    assert manager._state == "CLOSED"


def test_close_during_the_last_exchange_of_a_login_stores_and_starts_nothing(
    manager: Any, server: FakeServer
) -> None:
    gate = server.hold(VERIFY)
    runner = Worker(manager.authenticate)
    gate.reached()
    manager.close()
    gate.release()
    assert reason_of(runner.failure()) == "manager_closed"
    assert manager._token is None
    assert manager._wallet_secret is None
    assert manager._token_expiry is None
    assert manager._refresh_thread is None
    assert manager._close_event.is_set()
    assert refresh_threads(manager) == []


def test_close_during_a_login_without_an_event_makes_its_runner_fail(
    manager: Any, server: FakeServer
) -> None:
    manager._state = "RE_AUTHENTICATING"
    gate = server.hold(VERIFY)
    runner = Worker(manager.authenticate)
    gate.reached()
    manager.close()
    gate.release()
    assert reason_of(runner.failure()) == "manager_closed"
    assert manager._state == "CLOSED"
    assert manager._token is None


def test_close_at_any_exchange_of_a_login_leaves_it_closed(
    make_manager: Callable[..., Any], server: FakeServer
) -> None:
    for place in (REGISTER, CHALLENGE, VERIFY):
        manager = make_manager()
        server.script(place, lambda call, manager=manager: manager.close())  # type: ignore[misc]
        with pytest.raises(auth.AuthError) as caught:
            manager.authenticate()
        assert reason_of(caught.value) == "manager_closed"
        assert manager._state == "CLOSED"
        assert manager._private_key is None and manager._token is None
    assert refresh_threads(None) == []


def test_close_between_the_store_and_the_start_of_renewal_starts_no_thread(manager: Any) -> None:
    original = type(manager)._start_refresh

    def start() -> None:
        manager.close()
        original(manager)

    manager._start_refresh = start
    worker = Worker(manager.authenticate).finish()
    assert worker.error is None or reason_of(worker.error) == "manager_closed"
    assert manager._state == "CLOSED"
    assert manager._close_event.is_set()
    assert manager._refresh_thread is None
    assert refresh_threads(manager) == []


def test_no_thread_is_served_anything_after_close_has_returned(logged_in: Any) -> None:
    closed: list[float] = []
    late: list[Any] = []

    def serve() -> None:
        while True:
            was_closed = bool(closed)
            try:
                token = logged_in.get_token()
            except auth.AuthError as error:
                assert error.reason == "manager_closed"
                return
            if was_closed:
                late.append(token)

    workers = [Worker(serve) for _ in range(6)]
    time.sleep(0.02)
    logged_in.close()
    closed.append(time.monotonic())
    for worker in workers:
        worker.result()
    assert late == []


# Final and idempotent


@pytest.mark.parametrize(
    ("name", "args"),
    [
        ("authenticate", ()),
        ("get_token", ()),
        ("get_wallet_secret", ()),
        ("get_token_expiry", ()),
        ("set_display_name", ("Ada",)),
        ("notify_era_change", (5,)),
        ("_do_auth_flow", ()),
        ("_request_with_retry", ("POST", CHALLENGE)),
    ],
)
def test_every_later_call_is_manager_closed_without_a_request(
    logged_in: Any, server: FakeServer, name: str, args: tuple[Any, ...]
) -> None:
    logged_in.close()
    server.calls.clear()
    with pytest.raises(auth.AuthError) as caught:
        getattr(logged_in, name)(*args)
    assert reason_of(caught.value) == "manager_closed"
    assert server.calls == []
    assert logged_in._state == "CLOSED"


def test_the_address_still_answers(logged_in: Any) -> None:
    logged_in.close()
    assert logged_in.get_wallet_address() == ADDRESS


@pytest.mark.parametrize("name", ["_start_refresh", "_refresh_loop", "_do_refresh", "_background_reauth"])
def test_no_background_method_revives_a_closed_manager(logged_in: Any, server: FakeServer, name: str) -> None:
    logged_in.close()
    server.calls.clear()
    before = snapshot(logged_in)
    Worker(getattr(logged_in, name)).result(5.0)
    assert changes(before, snapshot(logged_in)) == set()
    assert refresh_threads(logged_in) == []


def test_64_threads_may_close_at_once(logged_in: Any) -> None:
    barrier = threading.Barrier(64)

    def close() -> None:
        barrier.wait(10.0)
        logged_in.close()

    for worker in [Worker(close) for _ in range(64)]:
        worker.result()
    assert logged_in._state == "CLOSED"
    assert refresh_threads(logged_in) == []


def test_logins_and_closes_racing_end_closed(make_manager: Callable[..., Any]) -> None:
    for _ in range(40):
        manager = make_manager()
        workers = [Worker(manager.authenticate) for _ in range(3)]
        closer = Worker(manager.close)
        closer.result()
        for worker in workers:
            worker.finish()
            assert worker.error is None or reason_of(worker.error) == "manager_closed"
        assert manager._state == "CLOSED"
        assert manager._token is None and manager._private_key is None
        assert manager._refresh_thread is None
    until(lambda: refresh_threads(None) == [], what="the end of every loop")


def test_era_changes_and_closes_racing_end_closed(make_manager: Callable[..., Any]) -> None:
    server = FakeServer()
    server.era = 100
    for _ in range(30):
        manager = make_manager(server=server)
        manager.authenticate()
        announcer = Worker(manager.notify_era_change, 5)
        closer = Worker(manager.close)
        closer.result()
        announcer.finish()
        assert announcer.error is None or reason_of(announcer.error) == "manager_closed"
        assert manager._state == "CLOSED"
        assert manager._token is None
    until(lambda: refresh_threads(None) == [], what="the end of every thread")


def test_leaving_a_with_block_closes(make_manager: Callable[..., Any]) -> None:
    manager = make_manager()
    with manager as entered:
        assert entered is manager
        manager.authenticate()
    assert manager._state == "CLOSED"


def test_leaving_a_with_block_by_an_error_closes_and_lets_it_pass(make_manager: Callable[..., Any]) -> None:
    manager = make_manager()
    with pytest.raises(LookupError, match="inside"), manager:
        raise LookupError("inside")
    assert manager._state == "CLOSED"


def test_a_with_block_uses_the_close_of_the_subclass(make_manager: Callable[..., Any]) -> None:
    closed: list[int] = []

    class Own(auth.AuthManager):
        def close(self) -> None:
            closed.append(1)
            super().close()

    with make_manager(cls=Own):
        pass
    assert closed == [1]


def test_close_uses_scripted_primitives_without_waiting_for_them(manager: Any) -> None:
    manager._auth_event = ScriptedEvent()
    manager._refresh_done = ScriptedEvent()
    manager.close()
    assert manager._auth_event.waits == []
    assert manager._refresh_done.waits == []


def test_wrong_arguments(manager: Any) -> None:
    with pytest.raises(TypeError, match="close"):
        manager.close(1)
    assert manager._state == "UNINITIALIZED"


# The key leaves the memory of the process

CHILD = """
    import ctypes, json, sys
    import tessaline.auth as auth

    def say(text):
        print(text, flush=True)
        sys.stdin.readline()

    # The text is built in place, digit by digit, so that this process holds one copy of it: the host's.
    masked = bytes.fromhex(sys.argv[1])
    key = "".join(["0" for _ in range(64)])
    data = id(key) + sys.getsizeof("") - 1
    for index, byte in enumerate(masked):
        for half in range(2):
            digit = ((byte ^ 0xA5) >> (4, 0)[half]) & 15
            ctypes.memset(data + 2 * index + half, ord("0123456789abcdef"[digit]), 1)

    def transport(method, url, headers=None, body=None):
        answer = {"challenge_id": 1, "message": "m", "token": "t", "expires_at": 1, "wallet_secret": ""}
        return 200, {}, json.dumps(answer).encode()

    manager = auth.AuthManager(key, "https://auth.example.test", _transport=transport)
    say("constructed")
    ctypes.memset(data, ord("-"), 64)
    for _ in range(3):
        manager._do_auth_flow()
    say("used")
    manager.close()
    say("closed")
"""


def occurrences(pid: int, patterns: list[bytes]) -> list[int]:
    counts = [0] * len(patterns)
    with open(f"/proc/{pid}/maps") as maps, open(f"/proc/{pid}/mem", "rb", buffering=0) as memory:
        for line in maps:
            span, rights = line.split()[:2]
            if not rights.startswith("rw"):
                continue
            start, end = (int(edge, 16) for edge in span.split("-"))
            try:
                memory.seek(start)
                content = memory.read(end - start)
            except OSError:
                continue
            for index, pattern in enumerate(patterns):
                counts[index] += content.count(pattern)
    return counts


@searches_all_memory
@pytest.mark.skipif(not os.path.exists("/proc/self/mem"), reason="needs /proc to read another process")
def test_after_close_no_copy_of_the_key_is_left_in_the_memory_of_the_process() -> None:
    key = bytes([1]) + secrets.token_bytes(31)
    text = key.hex().encode("ascii")
    patterns = [key, key[::-1], text, text.upper(), text[:32], key[:16]]
    masked = bytes(byte ^ 0xA5 for byte in key).hex()
    child = subprocess.Popen(
        [sys.executable, "-c", textwrap.dedent(CHILD), masked],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        text=True,
    )
    assert child.stdin is not None and child.stdout is not None
    try:
        assert child.stdout.readline() == "constructed\n"
        assert occurrences(child.pid, patterns)[2] >= 1, "the scan does not see the host's own text"
        child.stdin.write("\n")
        child.stdin.flush()
        assert child.stdout.readline() == "used\n"
        in_use = occurrences(child.pid, patterns)
        assert in_use[2:5] == [0, 0, 0], "the component keeps the key as text"
        child.stdin.write("\n")
        child.stdin.flush()
        assert child.stdout.readline() == "closed\n"
        assert occurrences(child.pid, patterns) == [0] * len(patterns)
    finally:
        child.kill()
        child.communicate()

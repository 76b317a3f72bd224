"""An interpreter that shuts down slowly, so that background threads wake up during the shutdown."""

from __future__ import annotations

import textwrap
from collections.abc import Callable

import pytest

from . import runs

pytestmark = pytest.mark.process

RUNS = runs.how_many(1)

# The finalizer delays the interpreter's shutdown.
PRELUDE = """
    import sys, threading, time
    import tessaline.auth as auth

    KEY = "4c0883a69102937d6231471b5dbb6204fe5129617082792ae468d01a3f362318"

    class SlowToGo:
        def __init__(self, clock):
            self.clock = clock

        def __del__(self):
            end = self.clock() + 0.2
            while self.clock() < end:
                pass

    slow_to_go = SlowToGo(time.perf_counter)

    def make(transport, **options):
        manager = auth.AuthManager(KEY, "https://auth.example.test", _transport=transport, **options)
        manager._token, manager._token_expiry = "token", 1e12
        return manager

    def until(condition):
        end = time.perf_counter() + 20.0
        while not condition():
            assert time.perf_counter() < end
            time.sleep(0.005)
"""


Check = Callable[[str], None]


@pytest.fixture
def exits_cleanly(request: pytest.FixtureRequest) -> Check:
    def check(program: str) -> None:
        text = textwrap.dedent(PRELUDE) + textwrap.dedent(program) + "\nprint(time.monotonic(), flush=True)\n"
        runs.check(request.node.name, [runs.PYTHON, "-X", "faulthandler", "-c", text], runs=RUNS)

    return check


BEGIN = {
    "login": "threading.Thread(target=manager.authenticate, daemon=True).start()",
    "refresh": "manager._state, manager._refresh_at = 'AUTHENTICATED', 0.0; manager._start_refresh()",
    "era change": "manager._state = 'AUTHENTICATED'; manager.notify_era_change(5)",
}
FAILURES = {
    "a network failure": "raise ConnectionRefusedError('refused')",
    "a 503": "return 503, {}, b''",
    "a 429": "return 429, {'Retry-After': 'x'}, b''",
}


@pytest.mark.parametrize("failure", FAILURES)
@pytest.mark.parametrize("begin", BEGIN)
def test_exit_during_a_backoff(begin: str, failure: str, exits_cleanly: Check) -> None:
    exits_cleanly(f"""
        def transport(method, url, headers=None, body=None):
            {FAILURES[failure]}

        manager = make(transport)
        {BEGIN[begin]}
        until(lambda: manager._in_transient_backoff)
        time.sleep(0.04)
    """)


@pytest.mark.parametrize("begin", BEGIN)
def test_exit_during_a_request(begin: str, exits_cleanly: Check) -> None:
    exits_cleanly(f"""
        inside = threading.Event()

        def transport(method, url, headers=None, body=None):
            inside.set()
            time.sleep(0.1)
            return 503, {{}}, b""

        manager = make(transport)
        {BEGIN[begin]}
        inside.wait(5.0)
        time.sleep(0.02)
    """)


@pytest.mark.parametrize(
    "state",
    [
        "manager._refresh_at = 5.0",
        "manager._refresh_at = None",
        "manager._state = 'RE_AUTHENTICATING'",
        "manager._refresh_at = 5.0; manager._clock = lambda: 1 / 0",
        "del manager._refresh_at",
        "manager._refresh_at = 'noon'",
    ],
    ids=["waiting", "no time", "other state", "raising clock", "time deleted", "time of a foreign type"],
)
def test_exit_while_the_refresh_loop_waits(state: str, exits_cleanly: Check) -> None:
    exits_cleanly(f"""
        threading.excepthook = lambda args: None
        manager = make(None, clock=lambda: 0.0)
        manager._state = "AUTHENTICATED"
        {state}
        manager._start_refresh()
        time.sleep(0.08)
    """)


def test_exit_while_callers_wait(exits_cleanly: Check) -> None:
    exits_cleanly("""
        def transport(method, url, headers=None, body=None):
            time.sleep(5.0)

        manager = make(transport)
        calls = [manager.authenticate, manager.authenticate, manager.get_token, manager.get_token]
        for call in calls:
            threading.Thread(target=call, daemon=True).start()
            until(lambda: manager._state == "AUTHENTICATING")
        expired = make(transport)
        expired._state, expired._token_expiry = "AUTHENTICATED", 0.0
        threading.Thread(target=expired.get_token, daemon=True).start()
        time.sleep(0.05)
    """)


def test_exit_at_once_after_a_login_without_close(exits_cleanly: Check) -> None:
    exits_cleanly("""
        import json

        def transport(method, url, headers=None, body=None):
            answer = {"challenge_id": 1, "message": "m", "token": "t", "expires_at": 1, "wallet_secret": ""}
            return 200, {}, json.dumps(answer).encode()

        auth._assert_token_subject_matches_wallet = lambda token, wallet_address: None
        managers = [make(transport) for _ in range(4)]
        for manager in managers:
            try:
                manager.authenticate()
            except auth.AuthError as error:
                assert error.reason == "wallet_mismatch"
                manager._state = "AUTHENTICATED"
                manager._start_refresh()
    """)

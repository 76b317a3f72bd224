"""Runs one infinite recursion through methods of a manager, and prints the result.

    python -m tests.process.recursion SCENARIO STACK_KIB

The recursion runs on a thread with a stack of that size; 0 is for the main thread.
"""

from __future__ import annotations

import base64
import contextlib
import json
import secrets
import sys
import threading
from collections.abc import Callable
from typing import Any

from tessaline import auth


def transport(method: str, url: str, headers: Any = None, body: Any = None) -> Any:
    """A server in memory."""
    path = url.removeprefix("https://service.example")
    if path == "/auth/challenge":
        return 200, {}, json.dumps({"challenge_id": "1", "message": "sign"}).encode()
    if path != "/auth/verify":
        return 201, {}, b""
    claims = base64.urlsafe_b64encode(json.dumps({"sub": ADDRESS}).encode()).decode().rstrip("=")
    secret = base64.b64encode(bytes(32)).decode()
    answer = {"token": f"e30.{claims}.e30", "expires_at": 1, "wallet_secret": secret}
    return 200, {}, json.dumps(answer).encode()


KEY = secrets.token_hex(32)
ADDRESS = auth.AuthManager(KEY, "https://service.example").get_wallet_address()


class Renaming(auth.AuthManager):
    """A flow that is the flow around it."""

    _do_auth_flow = auth.AuthManager._do_auth_flow_matching_pending_era


class Wearing(auth.AuthManager):
    """The same with Python frames in between."""

    def _get_time(self) -> float:
        return len(self.get_token())


class Plain(auth.AuthManager):
    """One whose class can be another."""


def manager(cls: Any = auth.AuthManager, **options: Any) -> Any:
    return cls(KEY, "https://service.example", _transport=transport, **options)


def logged_in(cls: Any = Plain) -> Any:
    made = manager(Plain, clock=lambda: 0.0)
    made.authenticate()
    made.__class__ = cls
    return made


def clock_that_is_get_time() -> None:
    one = manager()
    one._clock = one._get_time
    one._get_time()


def clock_that_is_get_token() -> None:
    one = logged_in()
    one._clock = one.get_token
    one.get_token()


def time_that_is_get_token() -> None:
    logged_in(Wearing).get_token()


def request_that_is_its_retry() -> None:
    one = manager()
    one._http_request = one._request_with_retry
    one._request_with_retry("GET", "/")


def era_for_the_module_itself() -> None:
    auth._set_active_auth_manager(auth)
    auth.notify_era_change(1)


def flow_that_is_the_one_around_it() -> None:
    one = manager(Renaming)
    before = one._state
    with contextlib.suppress(RecursionError):
        one.authenticate()
    # Its state is unchanged, and it can be called again.
    assert (one._state, one._lock.locked(), one._auth_event.is_set()) == (before, False, True)
    one.authenticate()


def renewal_that_starts_itself() -> None:
    one = logged_in()
    one._start_refresh = one._do_refresh
    one._do_refresh()
    # A renewal has no caller to raise to.
    raise one._auth_error


SCENARIOS: dict[str, Callable[[], None]] = {
    function.__name__: function
    for function in (
        clock_that_is_get_time,
        clock_that_is_get_token,
        time_that_is_get_token,
        request_that_is_its_retry,
        era_for_the_module_itself,
        flow_that_is_the_one_around_it,
        renewal_that_starts_itself,
    )
}


def tell(scenario: Callable[[], None]) -> None:
    told: list[object] = []
    try:
        scenario()
    except (RecursionError, auth.AuthError) as error:
        told = [type(error).__name__, str(error), getattr(error, "__notes__", [])]
    # The stack is usable afterwards.
    with manager() as another:
        another.authenticate()
    print(json.dumps(told))


if __name__ == "__main__":
    chosen, kibibytes = SCENARIOS[sys.argv[1]], int(sys.argv[2])
    if kibibytes == 0:
        tell(chosen)
    else:
        threading.stack_size(kibibytes * 1024)
        thread = threading.Thread(target=tell, args=[chosen])
        thread.start()
        thread.join()

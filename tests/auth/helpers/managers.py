"""Managers with known keys, and snapshots of their fields."""

from __future__ import annotations

import threading
from typing import Any

from eth_account import Account

import canary
from tessaline import auth
from tests.shared.clocks import HandClock
from tests.shared.threads import Worker

from .server import BASE, FakeServer

KEY = "4c0883a69102937d6231471b5dbb6204fe5129617082792ae468d01a3f362318"
ADDRESS = Account.from_key(bytes.fromhex(KEY)).address.lower()
SECRET = bytes(range(32))

PLAIN_FIELDS = (
    "_wallet_address",
    "_private_key",
    "_server_url",
    "_invite_code",
    "_register_wallet",
    "_clock",
    "_uses_injected_clock",
    "_transport",
    "_state",
    "_lock",
    "_token",
    "_token_iat",
    "_token_expiry",
    "_wallet_secret",
    "_auth_time",
    "_auth_event",
    "_auth_error",
    "_refresh_thread",
    "_refresh_stop",
    "_refresh_event",
    "_refresh_at",
    "_close_event",
    "_permanent_refresh_error",
    "_refresh_pending",
    "_refresh_done",
    "_in_transient_backoff",
    "_reauth_mode",
    "_pending_era_number",
    "_registration_acknowledged",
)
EVENT_FIELDS = ("_refresh_stop", "_refresh_event", "_close_event", "_refresh_pending", "_refresh_done")


def build(server: Any = None, clock: Any = None, *, cls: Any = None, key: str = KEY, **options: Any) -> Any:
    """A manager over an in-memory server with a stepped clock; nothing tracks it."""
    options.setdefault("_transport", FakeServer() if server is None else server)
    options.setdefault("clock", HandClock(1000.0) if clock is None else clock)
    canary.plant("key", key)
    return canary.watch((cls or auth.AuthManager)(key, BASE, **options))


def snapshot(manager: Any) -> dict[str, Any]:
    """Every field and whether each event is set; equal snapshots mean that nothing has changed."""
    state = {name: getattr(manager, name) for name in PLAIN_FIELDS}
    for name in (*EVENT_FIELDS, "_auth_event"):
        event = state[name]
        state[f"{name} is set"] = None if event is None else event.is_set()
    return state


def changes(before: dict[str, Any], after: dict[str, Any]) -> set[str]:
    """The names of the differences between two snapshots (objects by identity if equality is not enough)."""
    return {
        name for name in before if before[name] is not after[name] and not _same(before[name], after[name])
    }


def _same(one: Any, other: Any) -> bool:
    plain = (str, bytes, int, float)
    return (isinstance(one, plain) and type(one) is type(other) and one == other) or _same_method(one, other)


def _same_method(one: Any, other: Any) -> bool:
    return hasattr(one, "__self__") and one == other


def refresh_threads(manager: Any) -> list[threading.Thread]:
    """Live threads other than the test's own: with one manager, its background threads."""
    known = set(_baseline)
    return [
        thread
        for thread in threading.enumerate()
        if thread not in known and thread.name != Worker.NAME and thread is not threading.main_thread()
    ]


_baseline: list[threading.Thread] = []


def mark_baseline() -> None:
    _baseline[:] = threading.enumerate()


def reason_of(error: BaseException) -> Any:
    assert type(error) is auth.AuthError, f"{error!r} is not an AuthError"
    assert str(error) == error.reason
    return error.reason

"""Successful and failed calls leave nothing allocated."""

from __future__ import annotations

import contextlib
import gc
import sys
from collections.abc import Callable
from typing import Any

import pytest

import canary
from tessaline import auth

from .helpers.managers import ADDRESS, KEY, build
from .helpers.server import BASE, CHALLENGE, DISPLAY_NAME, REGISTER, VERIFY
from .helpers.tokens import issued, with_payload

ROUNDS = 400
TOKEN = issued(ADDRESS, 5)


def growth(call: Callable[[], Any]) -> int:
    """Blocks still allocated after many rounds, compared with a few."""
    with canary.resting():
        for _ in range(40):
            call()
        gc.collect()
        before = sys.getallocatedblocks()
        for _ in range(ROUNDS):
            call()
        gc.collect()
        return sys.getallocatedblocks() - before


def quietly(call: Callable[..., Any], *args: Any, **kwargs: Any) -> Callable[[], None]:
    def run() -> None:
        with contextlib.suppress(Exception):
            call(*args, **kwargs)

    return run


FUNCTIONS: dict[str, Callable[[], None]] = {
    "auth error": quietly(auth.AuthError, reason="r"),
    "auth error refused": quietly(auth.AuthError),
    "profile error": quietly(auth.ProfileError, "r", message="m", retry_after=5),
    "profile error refused": quietly(auth.ProfileError, "r", "s", x=1),
    "key": quietly(auth._validate_private_key, "0x" + KEY),
    "key refused": quietly(auth._validate_private_key, "g" * 64),
    "key of wrong length": quietly(auth._validate_private_key, "1" * 63),
    "url": quietly(auth._validate_server_url, BASE),
    "url refused": quietly(auth._validate_server_url, "nowhere"),
    "invite": quietly(auth._normalize_invite_code, "  ABC "),
    "payload": quietly(auth._decode_jwt_payload_unverified, TOKEN),
    "payload refused": quietly(auth._decode_jwt_payload_unverified, "a.!.c"),
    "era": quietly(auth._jwt_era_number, TOKEN.encode("ascii")),
    "era refused": quietly(auth._jwt_era_number, with_payload({"era_number": "x"})),
    "subject": quietly(auth._assert_token_subject_matches_wallet, TOKEN, ADDRESS),
    "subject refused": quietly(auth._assert_token_subject_matches_wallet, TOKEN, "0x"),
    "wrong call": quietly(auth._jwt_era_number, jwt=TOKEN),
    "construction": quietly(build, transport_is_not_an_option=1),
    "construction refused": quietly(auth.AuthManager, KEY, "nowhere"),
}


@pytest.mark.parametrize("name", FUNCTIONS)
def test_module_function_leaves_nothing_behind(name: str) -> None:
    assert growth(FUNCTIONS[name]) < ROUNDS // 4


def answering(status: int, body: bytes) -> Callable[..., Any]:
    return lambda method, url, headers=None, body_=None, **kwargs: (status, {"Retry-After": "x"}, body)


def waitless(manager: Any) -> Any:
    manager._wait_with_clock = lambda seconds: None
    manager._start_refresh = lambda: None
    return manager


def good(method: str, url: str, headers: Any = None, body: Any = None) -> Any:
    if url.endswith(CHALLENGE):
        return 200, {}, b'{"challenge_id": 1, "message": "m"}'
    return 200, {}, b'{"token": "%s", "expires_at": 1, "wallet_secret": "AAAA"}' % TOKEN.encode("ascii")


METHODS: dict[str, Callable[[Any], Any]] = {
    "request": lambda m: m._http_request("POST", "/x", {"a": 1}, {"H": "v"}),
    "request of text": lambda m: (
        setattr(m, "_transport", answering(200, b"text")),
        m._http_request("G", "/"),
    ),
    "request unpacked wrongly": lambda m: (
        setattr(m, "_transport", lambda *a, **k: 5),
        m._http_request("G", "/"),
    ),
    "retry exhausted": lambda m: (
        setattr(m, "_transport", answering(503, b"")),
        m._request_with_retry("POST", CHALLENGE, max_attempts=3),
    ),
    "register refused": lambda m: (
        setattr(m, "_transport", answering(403, b'{"error": "invite_invalid"}')),
        m._request_with_retry("POST", REGISTER),
    ),
    "rate limited": lambda m: (
        setattr(m, "_transport", answering(429, b"")),
        m._request_with_retry("POST", DISPLAY_NAME),
    ),
    "verify refused": lambda m: (
        setattr(m, "_transport", answering(401, b"{}")),
        m._request_with_retry("POST", VERIFY, is_verify=True),
    ),
    "flow": lambda m: m._do_auth_flow(),
    "flow without keys": lambda m: (setattr(m, "_transport", answering(200, b"{}")), m._do_auth_flow()),
    "login": lambda m: m.authenticate(),
    "login refused": lambda m: (setattr(m, "_transport", answering(401, b"")), m.authenticate()),
    "login broken": lambda m: (setattr(m, "_transport", None), m.authenticate()),
    "refresh": lambda m: (setattr(m, "_state", "AUTHENTICATED"), m._do_refresh()),
    "refresh refused": lambda m: (
        setattr(m, "_state", "AUTHENTICATED"),
        setattr(m, "_transport", answering(401, b"")),
        m._do_refresh(),
    ),
    "re-authentication": lambda m: (setattr(m, "_state", "RE_AUTHENTICATING"), m._background_reauth()),
    "token": lambda m: m.get_token(),
    "token refused": lambda m: (setattr(m, "_state", "UNINITIALIZED"), m.get_token()),
    "accessors": lambda m: (m.get_wallet_secret(), m.get_token_expiry(), m.get_wallet_address()),
    "display name": lambda m: m.set_display_name("Ada"),
    "display name refused": lambda m: m.set_display_name("!"),
    "key text": lambda m: (m._private_key, setattr(m, "_private_key", KEY)),
    "representation": lambda m: repr(m),
    "wrong call": lambda m: m._request_with_retry("POST"),
    "close": lambda m: (setattr(m, "_state", "AUTHENTICATED"), m.close(), setattr(m, "_private_key", KEY)),
}


@pytest.mark.parametrize("name", METHODS)
def test_method_leaves_nothing_behind(name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    # The captured log of the test run would grow otherwise.
    monkeypatch.setattr(auth, "log_library_surface_event", lambda *args, **kwargs: None)
    manager = waitless(build(good))
    manager.authenticate()

    def run() -> None:
        manager._transport = good
        with contextlib.suppress(Exception):
            METHODS[name](manager)

    assert growth(run) < ROUNDS // 4


def test_shared_objects_keep_their_reference_counts() -> None:
    headers: dict[str, str] = {}
    result = (200, headers, b'{"a": 1}')
    transport = lambda *args, **kwargs: result  # noqa: E731
    body, clock = {"b": 2}, lambda: 1000.0
    manager = build(transport, clock)
    watched = [headers, result, body, transport, clock, manager]
    before = [sys.getrefcount(thing) for thing in watched]
    for _ in range(200):
        manager._http_request("POST", "/x", body, headers)
        manager._request_with_retry("POST", "/x", body_dict=body, headers=headers, max_attempts=3)
        manager._get_time()
        manager._wait_with_clock(0)
        with contextlib.suppress(auth.AuthError):
            manager.get_token()
        with contextlib.suppress(KeyError):
            manager.authenticate()
    manager._auth_error = None
    gc.collect()
    assert [sys.getrefcount(thing) for thing in watched] == before

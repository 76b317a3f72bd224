"""Each reason has a sentence of advice; text, `args` and attributes are the same as without it."""

from __future__ import annotations

import re
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from tessaline import auth

from .helpers.server import CHALLENGE, DISPLAY_NAME, REGISTER, VERIFY, Answer, FakeServer

CONSTANTS = Path(__file__).resolve().parents[2] / "src/tessaline/auth/constants.hpp"

Provoke = Callable[[Any, FakeServer], Any]


def logging_in(manager: Any, server: FakeServer) -> None:
    manager.authenticate()


def taking_a_token(manager: Any, server: FakeServer) -> None:
    manager.get_token()


def after_close(manager: Any, server: FakeServer) -> None:
    manager.close()
    manager.get_token()


def after_a_permanent_error(manager: Any, server: FakeServer) -> None:
    manager._state, manager._token, manager._token_expiry = auth._AUTHENTICATED, "old", 0.0
    manager._permanent_refresh_error = True
    manager.get_token()


def with_a_pending_era(manager: Any, server: FakeServer) -> None:
    manager._state, manager._token, manager._pending_era_number = auth._AUTHENTICATED, "old", 7
    manager.get_token()


def token_of_another_era(manager: Any, server: FakeServer) -> None:
    manager._pending_era_number = 7
    server.era = 6
    manager.authenticate()


def token_of_another_wallet(manager: Any, server: FakeServer) -> None:
    server.subject = "0x" + "0" * 40
    manager.authenticate()


def another_secret(manager: Any, server: FakeServer) -> None:
    manager.authenticate()
    server.secret = bytes(32)
    manager.authenticate()


def unknown_state(manager: Any, server: FakeServer) -> None:
    manager._state = "DREAMING"
    manager.authenticate()


def refused(path: str, status: int, reason: Any = None, headers: dict[str, str] | None = None) -> Provoke:
    def provoke(manager: Any, server: FakeServer) -> None:
        server.always(path, Answer(status, {"error": reason}, headers or {}))
        manager.authenticate()
        manager.set_display_name("somebody")

    return provoke


AUTH_ERRORS: list[tuple[str, Provoke, str]] = [
    ("manager_closed", after_close, "the manager was closed: make a new AuthManager to log in again"),
    (
        "not_authenticated",
        taking_a_token,
        "call authenticate() first, and again after a login or a renewal that failed",
    ),
    (
        "token_expired",
        after_a_permanent_error,
        "the token was not renewed in time: call authenticate() to log in again",
    ),
    (
        "era_change_pending",
        with_a_pending_era,
        "a new era was announced and there is no token of it yet: "
        "call get_token() again later, or authenticate() now",
    ),
    (
        "era_mismatch",
        token_of_another_era,
        "the server's token does not carry the announced era: "
        "call authenticate() once the server has changed to it",
    ),
    (
        "wallet_mismatch",
        token_of_another_wallet,
        "the server's token cannot be read or is another wallet's: "
        "check that server_url names the right server",
    ),
    (
        "wallet_secret_changed",
        another_secret,
        "the server sent a different secret for this wallet than before: if that is expected, "
        "log in with a new AuthManager",
    ),
    (
        "unexpected_auth_state",
        unknown_state,
        "some code has set the manager's _state to an invalid value: make a new AuthManager",
    ),
    (
        "invalid_address",
        refused(REGISTER, 400),
        "the server refused to register this wallet (status 400): "
        "check that server_url names the right server",
    ),
    (
        "unauthorized",
        refused(CHALLENGE, 401),
        "the server refused this wallet (status 401 or 403): "
        "check that server_url names the right server, or ask its operator",
    ),
    (
        "unauthorized",
        refused(REGISTER, 403),
        "the server refused this wallet (status 401 or 403): "
        "check that server_url names the right server, or ask its operator",
    ),
    (
        "invalid_request",
        refused(CHALLENGE, 400),
        "the server did not understand the request (status 400): "
        "check that server_url names the right server and that the versions of client and server "
        "are compatible",
    ),
    (
        "signature_mismatch",
        refused(VERIFY, 401),
        "the server refused the wallet's signature (status 401): "
        "check that server_url names the right server, then call authenticate()",
    ),
    (
        "profile_unauthorized",
        refused(DISPLAY_NAME, 401),
        "the server refused the token (status 401): call authenticate(), then try again",
    ),
]

PROFILE_ERRORS: list[tuple[str, Provoke, dict[str, Any], str]] = [
    (
        "validation_failed",
        refused(DISPLAY_NAME, 400, "taken"),
        {"message": "taken"},
        "the server refused the display name: its explanation is in the attribute message",
    ),
    (
        "rate_limited",
        refused(DISPLAY_NAME, 429, headers={"Retry-After": "9"}),
        {"retry_after": 9},
        "wait for the seconds in the attribute retry_after, then try again",
    ),
]

REGISTRATION_ERRORS = {
    "invite_invalid": (
        "the server does not know this invite code: check how it was typed and pass it as invite_code"
    ),
    "invite_already_redeemed": "this invite code has been used: ask for another one",
    "invite_revoked": "this invite code was withdrawn: ask for another one",
    "invite_required": "the server admits by invitation only: pass a code as invite_code",
}


def notes(error: BaseException) -> list[str]:
    return list(getattr(error, "__notes__", []))


def failure_of(provoke: Provoke, manager: Any, server: FakeServer) -> Exception:
    with pytest.raises(Exception) as caught:
        provoke(manager, server)
    return caught.value


@pytest.mark.parametrize(("reason", "provoke", "note"), AUTH_ERRORS)
def test_auth_error(reason: str, provoke: Provoke, note: str, manager: Any, server: FakeServer) -> None:
    error = failure_of(provoke, manager, server)
    assert type(error) is auth.AuthError
    assert (str(error), error.args, repr(error)) == (reason, (reason,), f"AuthError({reason!r})")
    assert vars(error) == {"reason": reason}
    assert notes(error) == [note]


@pytest.mark.parametrize(("reason", "provoke", "extras", "note"), PROFILE_ERRORS)
def test_profile_error(
    reason: str, provoke: Provoke, extras: dict[str, Any], note: str, manager: Any, server: FakeServer
) -> None:
    error = failure_of(provoke, manager, server)
    assert type(error) is auth.ProfileError
    assert (str(error), error.args) == (reason, (reason,))
    assert vars(error) == {"reason": reason, **extras}
    assert notes(error) == [note]


@pytest.mark.parametrize(("reason", "note"), REGISTRATION_ERRORS.items())
def test_registration_error(reason: str, note: str, manager: Any, server: FakeServer) -> None:
    error = failure_of(refused(REGISTER, 403, reason), manager, server)
    assert type(error) is auth.RegistrationError
    assert (error.args, vars(error)) == ((reason,), {})
    assert notes(error) == [note]


def test_every_reason_of_the_component_has_a_note() -> None:
    told = {reason for reason, *_ in AUTH_ERRORS} | {reason for reason, *_ in PROFILE_ERRORS}
    text = CONSTANTS.read_text("utf-8")
    reasons = set(re.findall(r'"([a-z_]+)"', text[text.index("namespace reason {") :]))
    assert reasons == told
    assert set(REGISTRATION_ERRORS) == auth._INVITE_REGISTRATION_REASONS


@pytest.mark.parametrize(
    "note",
    sorted({row[-1] for row in (*AUTH_ERRORS, *PROFILE_ERRORS)} | set(REGISTRATION_ERRORS.values())),  # type: ignore[type-var]
)
def test_a_note_is_one_sentence(note: str) -> None:
    assert note[0].islower() and not note.endswith(".") and "\n" not in note


# The network


@pytest.mark.parametrize(
    ("step", "note"),
    [
        (
            ConnectionRefusedError("nobody"),
            "the last attempt, POST /auth/register, ended in ConnectionRefusedError: it is safe to try again",
        ),
        (
            TimeoutError(),
            "the last attempt, POST /auth/register, ended in TimeoutError: it is safe to try again",
        ),
        (Answer(503), "the last answer, to POST /auth/register, had status 503: it is safe to try again"),
        (Answer(500), "the last answer, to POST /auth/register, had status 500: it is safe to try again"),
        (Answer(429), "the last answer, to POST /auth/register, had status 429: it is safe to try again"),
        (
            Answer(404),
            "the last answer, to POST /auth/register, had status 404: "
            "check that server_url names the right server",
        ),
        (
            Answer(302),
            "the last answer, to POST /auth/register, had status 302: "
            "check that server_url names the right server",
        ),
    ],
)
def test_a_server_that_stays_away(step: Any, note: str, manager: Any, server: FakeServer) -> None:
    server.always(REGISTER, step)
    manager._wait_with_clock = lambda seconds: None
    error = failure_of(logging_in, manager, server)
    assert type(error) is auth.NetworkError
    assert (error.args, vars(error)) == (("Server unreachable after 3 attempts",), {})
    assert notes(error) == [note]


def test_the_last_attempt_is_the_one_that_is_told_of(manager: Any, server: FakeServer) -> None:
    server.script(REGISTER, ConnectionResetError(), TimeoutError(), Answer(502))
    manager._wait_with_clock = lambda seconds: None
    error = failure_of(logging_in, manager, server)
    assert notes(error) == [
        "the last answer, to POST /auth/register, had status 502: it is safe to try again"
    ]


def test_challenges_that_are_stale(manager: Any, server: FakeServer) -> None:
    server.always(VERIFY, Answer(410))
    error = failure_of(logging_in, manager, server)
    assert str(error) == "stale authentication challenge after 3 attempts"
    assert notes(error) == [
        "the server called each challenge unknown, expired or used: it is safe to try again"
    ]


# Failures of other threads


def test_a_failure_that_another_thread_met_keeps_its_notes(manager: Any, server: FakeServer) -> None:
    server.always(REGISTER, Answer(403, {"error": "invite_required"}))
    failure_of(logging_in, manager, server)
    stored = manager._auth_error
    assert type(stored) is auth.AuthError
    assert (stored.args, vars(stored)) == (("invite_required",), {"reason": "invite_required"})
    assert notes(stored) == [
        REGISTRATION_ERRORS["invite_required"],
        "another thread of the manager got tessaline.auth.RegistrationError: "
        "call authenticate() to try again",
    ]


def test_an_auth_error_that_another_thread_met_is_that_error(manager: Any, server: FakeServer) -> None:
    error = failure_of(refused(VERIFY, 401), manager, server)
    assert manager._auth_error is error
    assert len(notes(error)) == 1

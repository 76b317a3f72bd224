"""The body of one response of a login: the first byte selects which, the rest is the body itself.

The flow's result must equal that of the same steps in plain Python.
"""

from __future__ import annotations

import base64
import json
from collections.abc import Callable
from typing import Any

from tessaline import auth

from ..hosted import KEY, decoded, manager_over, outcome, words_of

REGISTER, CHALLENGE, VERIFY = "/auth/register", "/auth/challenge", "/auth/verify"
CHALLENGED = {"challenge_id": "c", "message": "Sign in"}
SECRET = b"the secret of the wallet, 32 by."
GRANTED = {
    "token": "the-token-of-the-wallet",
    "expires_at": 5,
    "wallet_secret": base64.b64encode(SECRET).decode(),
}


class Server:
    def __init__(self, path: str, status: int, body: bytes) -> None:
        self.path = path
        self.answer: Any = status, {}, body
        self.sent: dict[str, Any] = {}

    def __call__(self, method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        path = url.removeprefix("https://auth.example.test")
        assert path not in self.sent
        self.sent[path] = json.loads(body)
        if path == self.path:
            return self.answer
        return 200, {}, json.dumps(GRANTED if path == VERIFY else CHALLENGED).encode()


def expected_grant(value: Any) -> Any:
    token, expires_at, secret = value["token"], value["expires_at"], value["wallet_secret"]
    return token, expires_at, base64.b64decode(secret)


def expected_challenge(value: Any) -> Any:
    """The body of the request to verify."""
    challenge_id, message = value["challenge_id"], value["message"]
    if not isinstance(message, str):
        raise TypeError("message")
    message.encode()
    return challenge_id


def one_input(data: bytes) -> None:
    check = (check_grant, check_challenge, check_registration, check_refusal)[data[0] % 4 if data else 0]
    check(data[1:])


def flow(server: Server) -> Any:
    got = outcome(manager_over(server)._do_auth_flow)
    if isinstance(got, Exception):
        said = words_of(got)
        assert KEY not in said and GRANTED["wallet_secret"] not in said and GRANTED["token"] not in said  # type: ignore[operator]
    return got


def same_failure(got: Any, expected: Exception) -> bool:
    return type(got) is type(expected)


def after(read: Callable[[Any], Any], body: bytes) -> Any:
    """The result for the value of the body, or the exception."""
    value = decoded(body)
    return value if isinstance(value, RecursionError) else outcome(read, value)


def check_grant(body: bytes) -> None:
    got = flow(Server(VERIFY, 200, body))
    expected = after(expected_grant, body)
    if isinstance(expected, Exception):
        assert same_failure(got, expected), (got, expected)
    else:
        assert repr(got) == repr(expected)


def check_challenge(body: bytes) -> None:
    server = Server(CHALLENGE, 200, body)
    got = flow(server)
    expected = after(expected_challenge, body)
    if isinstance(expected, Exception):
        assert same_failure(got, expected), (got, expected)
        assert VERIFY not in server.sent
        return
    assert got == expected_grant(GRANTED)
    sent = server.sent[VERIFY]
    assert repr(sent["challenge_id"]) == repr(expected)
    assert len(sent["signature"]) == 132


def check_registration(body: bytes) -> None:
    got = flow(Server(REGISTER, 201, body))
    if isinstance(decoded(body), RecursionError):
        assert type(got) is RecursionError
    else:
        assert got == expected_grant(GRANTED)


def check_refusal(body: bytes) -> None:
    server = Server(REGISTER, 400, body)
    got = flow(server)
    assert list(server.sent) == [REGISTER]
    value = decoded(body)
    reason = value.get("error") if isinstance(value, dict) else None
    if isinstance(value, RecursionError):
        assert type(got) is RecursionError
    elif isinstance(reason, str) and reason in auth._INVITE_REGISTRATION_REASONS:
        assert type(got) is auth.RegistrationError and got.args == (reason,)
    else:
        assert type(got) is auth.AuthError and got.reason == "invalid_address"

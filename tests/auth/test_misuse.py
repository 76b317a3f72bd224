"""Arguments, clocks and transports of the wrong type: the error names the type, and a note the right one."""

from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth

from .helpers.managers import KEY
from .helpers.server import BASE, CHALLENGE, REGISTER, VERIFY, Answer, FakeServer

URL_FORM = "write the URL with scheme and host, as in https://service.example"
TRANSPORT_ANSWER = "a transport has to return status (int), headers (mapping) and body (bytes)"
LOGIN_ANSWER = "the server's answer is not what a login needs: check that server_url names the right server"


def failure(call: Callable[..., Any], *arguments: Any) -> Exception:
    with pytest.raises(Exception) as caught:
        call(*arguments)
    return caught.value


def notes(error: BaseException) -> list[str]:
    return list(getattr(error, "__notes__", []))


@pytest.mark.parametrize(
    ("key", "text", "advice"),
    [
        ("", "Private key must not be empty", []),
        (KEY[2:], "Private key must be 32 bytes (64 hex chars), got 62 hex chars", []),
        ("g" + KEY[1:], "Private key contains non-hex characters", []),
        (
            "0" * 64,
            "Private key is not a valid secp256k1 scalar",
            ["a private key is a number above 0 and below the order of the curve secp256k1"],
        ),
    ],
)
def test_key(key: str, text: str, advice: list[str]) -> None:
    error = failure(auth.AuthManager, key, BASE)
    assert type(error) is auth.InvalidKeyError
    assert (error.args, vars(error), notes(error)) == ((text,), {}, advice)


@pytest.mark.parametrize(("key", "kind"), [(bytes.fromhex(KEY), "bytes"), (int(KEY, 16), "int")])
def test_key_that_is_no_text(key: Any, kind: str) -> None:
    error = failure(auth.AuthManager, key, BASE)
    assert type(error) is TypeError
    assert str(error) == f"private_key must be str, not {kind}"
    assert notes(error) == ["pass the key as text: key.hex() makes it from 32 bytes"]


@pytest.mark.parametrize(
    ("url", "text"),
    [
        ("service.example:443", "server_url is not a valid URL: service.example:443"),
        ("https://", "server_url is not a valid URL: https://"),
    ],
)
def test_url_without_scheme_or_host(url: str, text: str) -> None:
    error = failure(auth.AuthManager, KEY, url)
    assert type(error) is ValueError
    assert (str(error), notes(error)) == (text, [URL_FORM])


@pytest.mark.parametrize("url", ["", None])
def test_no_url_says_all(url: Any) -> None:
    error = failure(auth.AuthManager, KEY, url)
    assert (type(error), str(error), notes(error)) == (ValueError, "server_url must not be empty", [])


@pytest.mark.parametrize(("url", "kind"), [(5, "int"), (BASE.encode(), "bytes"), ([BASE], "list")])
def test_url_that_is_no_text(url: Any, kind: str) -> None:
    error = failure(auth.AuthManager, KEY, url)
    assert (type(error), str(error)) == (TypeError, f"server_url must be str, not {kind}")


def test_port_of_the_url() -> None:
    error = failure(auth.AuthManager, KEY, "https://service.example:99999")
    assert str(error) == "server URL has a bad port: it must be a number from 1 to 65535"


@pytest.mark.parametrize("name", [5, b"somebody", ["somebody"]])
def test_display_name_that_is_no_text(logged_in: Any, name: Any) -> None:
    error = failure(logged_in.set_display_name, name)
    assert isinstance(error, AttributeError | TypeError)
    assert notes(error) == ["a display name is a str, and None resets it"]


def test_display_name_against_the_rule_says_all(logged_in: Any) -> None:
    error = failure(logged_in.set_display_name, "a!")
    assert (type(error), str(error), notes(error)) == (ValueError, auth._DISPLAY_NAME_ERR, [])


@pytest.mark.parametrize("era", ["7", None, [7]])
def test_era_that_is_no_number(logged_in: Any, era: Any) -> None:
    error = failure(logged_in.notify_era_change, era)
    assert type(error) is TypeError
    assert notes(error) == ["an era number is an int from 1"]


# Callables


def test_a_transport_that_is_none(make_manager: Any) -> None:
    error = failure(make_manager(_transport=5).authenticate)
    assert (type(error), str(error)) == (TypeError, "_transport must be callable, not int")


def test_a_clock_that_is_none(make_manager: Any) -> None:
    error = failure(make_manager(clock=5).authenticate)
    assert (type(error), str(error)) == (TypeError, "clock must be callable, not int")


@pytest.mark.parametrize(("reading", "kind"), [("now", "str"), (None, "NoneType"), ([1], "list")])
@pytest.mark.parametrize("step", [None, Answer(503)], ids=["when the token is stored", "in a back-off"])
def test_a_clock_that_returns_no_number(
    make_manager: Any, server: FakeServer, step: Any, reading: Any, kind: str
) -> None:
    server.always(REGISTER, step)
    error = failure(make_manager(clock=lambda: reading).authenticate)
    assert type(error) is TypeError
    assert notes(error) == [f"the clock has to return seconds as a number, and returned {kind}"]


def test_a_clock_that_returns_no_number_later(logged_in: Any, clock: Any) -> None:
    logged_in._clock = lambda: "later"
    error = failure(logged_in.get_token)
    assert type(error) is TypeError
    assert notes(error) == ["the clock has to return seconds as a number, and returned str"]
    logged_in._clock = clock


@pytest.mark.parametrize(
    "result",
    [
        None,
        200,
        (),
        (200, {}),
        (200, {}, b"", None),
        ("200", {}, b""),
        (None, {}, b""),
        (429, None, b""),
        (200, {}, "no JSON"),
        (200, {}, 5),
    ],
    ids=repr,
)
def test_a_transport_that_returns_another_shape(manager: Any, server: FakeServer, result: Any) -> None:
    server.always(REGISTER, lambda call: Answer() if result is None else result)
    if result is None:
        manager._transport = lambda *_, **__: None
    error = failure(manager.authenticate)
    assert isinstance(error, TypeError | ValueError | AttributeError)
    assert notes(error) == [TRANSPORT_ANSWER]


@pytest.mark.parametrize(
    ("path", "body"),
    [
        (CHALLENGE, b""),
        (CHALLENGE, b"<html>"),
        (CHALLENGE, {}),
        (CHALLENGE, {"challenge_id": 1}),
        (CHALLENGE, {"challenge_id": 1, "message": 5}),
        (VERIFY, {}),
        (VERIFY, ["token"]),
        (VERIFY, {"token": "a", "expires_at": 1}),
        (VERIFY, {"token": "a", "expires_at": 1, "wallet_secret": 5}),
        (VERIFY, {"token": "a", "expires_at": 1, "wallet_secret": "x"}),
    ],
)
def test_an_answer_that_is_not_the_services(manager: Any, server: FakeServer, path: str, body: Any) -> None:
    server.always(path, Answer(200, body))
    error = failure(manager.authenticate)
    assert isinstance(error, TypeError | ValueError | KeyError)
    assert notes(error) == [LOGIN_ANSWER]


# The manager itself


def test_a_subclass_that_forgets_the_constructor() -> None:
    class Forgetful(auth.AuthManager):
        def __init__(self) -> None:
            pass

    error = failure(Forgetful().authenticate)
    assert type(error) is AttributeError
    assert notes(error) == ["a subclass has to call AuthManager.__init__ before anything else"]


def test_a_manager_that_is_copied(manager: Any) -> None:
    error = failure(manager.__reduce__)
    assert notes(error) == [
        "create a new manager if you need another one; a forked child may use its parent's"
    ]


def test_a_clock_that_calls_its_manager(make_manager: Any) -> None:
    seen: list[Exception] = []

    def clock() -> float:
        if not seen:
            seen.append(failure(manager.get_token_expiry))
        return 1.0

    manager = make_manager(clock=clock)
    manager.authenticate()
    assert type(seen[0]) is RuntimeError
    assert str(seen[0]) == "AuthManager was called by code that it runs itself while it holds its lock"
    assert notes(seen[0]) == [
        "the manager's clock, a finalizer or a signal handler must not call its methods except "
        "close(): set a flag there, and call from elsewhere"
    ]


def test_a_transport_that_waits_for_its_own_login(manager: Any, server: FakeServer) -> None:
    seen: list[Exception] = []

    def wait(call: Any) -> None:
        seen.append(failure(manager.get_token))

    server.script(CHALLENGE, wait)
    manager.authenticate()
    assert str(seen[0]) == "AuthManager was asked to wait by code that its own authentication runs"
    assert notes(seen[0]) == [
        "a transport, a log handler or a signal handler that runs during a login must not wait "
        "for its outcome: ask for the token before or after it"
    ]


@pytest.mark.parametrize("method", ["close", "authenticate", "get_token", "get_wallet_secret"])
def test_fields_do_not_stand_in_for_the_constructor(method: str) -> None:
    bare = auth.AuthManager.__new__(auth.AuthManager)
    bare._lock, bare._state, bare._clock = threading.Lock(), "AUTHENTICATED", float
    with pytest.raises(AttributeError):
        getattr(bare, method)()

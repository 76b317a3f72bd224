"""The outcome of a request or a login, and that it shows no secret."""

from __future__ import annotations

import traceback
from collections.abc import Collection

from canary.telling import chain
from tessaline import auth
from tests.integration.support import Harness
from tests.transport.reference import failure, transport

__all__ = ["discreet", "failure", "log_in", "transport", "unreachable"]

LOGIN = {"register": 1, "challenge": 1, "verify": 1}
EXHAUSTED = "Server unreachable after 3 attempts"


def discreet(error: BaseException, secrets: Collection[str]) -> BaseException:
    """The error itself, after a search of all its texts."""
    for link in chain(error):
        said = "".join(traceback.format_exception(link)) + repr(link) + repr(link.args) + repr(vars(link))
        # Not a plain assertion, which would print the secret.
        if any(secret in said for secret in secrets):
            raise AssertionError("something secret shows")
    return error


def log_in(one: Harness, times: int = 1) -> None:
    """That many logins, each at its first try and with a new token."""
    tokens = set()
    for _ in range(times):
        one.forget()
        one.manager.authenticate()
        tokens.add(one.manager.get_token())
        assert (one.spy.attempts, one.delays) == (LOGIN, [])
    assert len(tokens) == times


def unreachable(one: Harness, pauses: tuple[int, int] = (1, 2)) -> BaseException:
    """The error of a login that failed after three tries, with these delays in between."""
    error = one.failure(one.manager.authenticate)
    assert (type(error), str(error)) == (auth.NetworkError, EXHAUSTED)
    assert (one.spy.attempts, one.delays) == ({"register": 3}, list(pauses))
    return error

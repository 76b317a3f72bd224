"""How a request or a login ended, and that nothing secret shows in it."""

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
    """The error itself, after a look at everything that it says."""
    for link in chain(error):
        said = "".join(traceback.format_exception(link)) + repr(link) + repr(link.args) + repr(vars(link))
        # Not a plain assertion, which would print what must not show.
        if any(secret in said for secret in secrets):
            raise AssertionError("something secret shows")
    return error


def log_in(one: Harness, times: int = 1) -> None:
    """So many logins, each at its first attempt and with a token of its own."""
    tokens = set()
    for _ in range(times):
        one.forget()
        one.manager.authenticate()
        tokens.add(one.manager.get_token())
        assert (one.spy.attempts, one.delays) == (LOGIN, [])
    assert len(tokens) == times


def unreachable(one: Harness, pauses: tuple[int, int] = (1, 2)) -> BaseException:
    """The error of a login that gave up after three attempts, with these pauses in between."""
    error = one.failure(one.manager.authenticate)
    assert (type(error), str(error)) == (auth.NetworkError, EXHAUSTED)
    assert (one.spy.attempts, one.delays) == ({"register": 3}, list(pauses))
    return error

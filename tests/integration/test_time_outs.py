"""Responses that come too late, or never."""

from __future__ import annotations

from collections.abc import Callable

import pytest

from devserver.testing import DevServer
from tessaline import auth

from .support import Harness

Make = Callable[..., Harness]

FLOW = ("register", "challenge", "verify")
EXHAUSTED = "Server unreachable after 3 attempts"


@pytest.fixture(autouse=True)
def impatient(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(auth, "_auth_http_timeout_seconds", lambda: 0.6)


@pytest.mark.parametrize("endpoint", FLOW)
@pytest.mark.parametrize("at", ["headers", "body"])
def test_one_late_answer_is_made_good(endpoint: str, at: str, server: DevServer, harness: Make) -> None:
    one = harness(server)
    server.faults(endpoint, [{"kind": "delay", "seconds": 30, "at": at}])
    one.manager.authenticate()
    assert one.delays == [1]
    # Half a response from verify: the challenge is used, and the flow starts again.
    used = endpoint == "verify" and at == "body"
    assert one.spy.attempts[endpoint] == (3 if used else 2)
    assert one.manager._state == "AUTHENTICATED"


def test_a_server_that_never_answers(server: DevServer, harness: Make) -> None:
    one = harness(server)
    server.faults("verify", [{"kind": "hold", "times": None}])
    error = one.failure(one.manager.authenticate)
    assert (type(error), str(error)) == (auth.NetworkError, EXHAUSTED)
    assert isinstance(error.__context__, TimeoutError)
    assert (one.delays, one.spy.attempts["verify"]) == ([1, 2], 3)
    assert one.manager._state == "UNINITIALIZED"

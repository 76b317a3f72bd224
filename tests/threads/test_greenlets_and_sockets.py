"""Managers among greenlets, over sockets, with a slow server in another process."""

from __future__ import annotations

import pytest

from devserver.testing import DevServer
from tests.sanitized import moves_stacks

from . import programs
from .test_greenlets import PATCHED, PRELUDE

pytestmark = [pytest.mark.process, moves_stacks]

# The first yields while it waits for the server.
TRANSPORTS = {
    "a transport in Python": """
import urllib.request
def transport(method, url, headers=None, body=None):
    asked = urllib.request.Request(url, body.encode(), headers, method=method)
    with urllib.request.urlopen(asked, timeout=10) as answer:
        return answer.status, dict(answer.headers), answer.read()
gives_way = True
""",
    "the component's own": "transport, gives_way = None, False\n",
}

PROGRAM = """
    manager = auth.AuthManager(KEY, URL, clock=clock, _transport=transport)
    seen = len(ticks)
    login = calls(manager.authenticate)
    waiting = callers(4)
    assert results(login) == [None]
    assert not gives_way or len(ticks) > seen + 20
    first = manager.get_token()
    assert results(waiting) == [first] * 4

    clock.now += 0.9 * LIFETIME
    until(lambda: manager.get_token() != first)
    second = manager.get_token()
    clock.now += LIFETIME
    renewed = results(callers(4))
    assert len(set(renewed)) == 1 and not {first, second} & set(renewed)

    with manager:
        manager.set_display_name("Somebody")
    assert results(callers(2)) == ["manager_closed"] * 2
"""


@pytest.mark.parametrize("patch", PATCHED)
@pytest.mark.parametrize("transport", TRANSPORTS)
def test_over_sockets(server: DevServer, transport: str, patch: str) -> None:
    server.faults("challenge", [{"kind": "delay", "seconds": 0.1}])
    prelude = f"{PRELUDE}{TRANSPORTS[transport]}URL = {server.url!r}\n"
    programs.run(PROGRAM, before=PATCHED[patch], prelude=prelude)
    counts = server.state()["counts"]
    assert [counts[endpoint] for endpoint in ("register", "challenge", "verify")] == [3, 3, 3]

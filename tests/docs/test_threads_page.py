"""The page on threads: its example runs under gevent and eventlet, and its other statements are true."""

from __future__ import annotations

import gc
import inspect
import os
import secrets
import subprocess
import sys
import threading
import weakref

import pytest

from devserver.testing import DevServer
from tessaline import auth
from tessaline.auth import AuthManager
from tessaline.keeper import Keeper
from tessaline.keeper.scheduler import Scheduler
from tessaline.testing import KEY, URL, FakeClock, FakeService
from tests.sanitized import moves_stacks, patience
from tests.shared.threads import until

from .pages import DOCS, code_blocks

pytestmark = [pytest.mark.process, moves_stacks]

PAGE = DOCS / "threads.md"
IN_PLACE_OF: dict[str, dict[str, str]] = {
    "gevent": {},
    "eventlet": {
        "from gevent import monkey": "import warnings; warnings.simplefilter('ignore'); import eventlet",
        "monkey.patch_all()": "eventlet.monkey_patch()",
        "integrations.gevent": "integrations.eventlet",
    },
}
ENDING = """
from tessaline.integrations import _off_hub
assert type(shared) is _off_hub.OffHub
assert keeper.get_token().count(".") == 2
keeper.close()
"""


@pytest.mark.parametrize("library", IN_PLACE_OF)
def test_its_example_runs(library: str) -> None:
    (text,) = [block.text for block in code_blocks(PAGE) if "monkey" in block.text]
    for old, new in IN_PLACE_OF[library].items():
        assert old in text
        text = text.replace(old, new)
    with DevServer() as server:
        done = subprocess.run(
            [sys.executable, "-c", text.replace("https://service.example", server.url) + ENDING],
            env=os.environ | {"WALLET_KEY": secrets.token_hex(32)},
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=patience(30.0),
        )
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
        assert server.state()["counts"]["verify"] == 1


def test_the_longest_stop_is_told() -> None:
    text = " ".join(PAGE.read_text().split())
    seconds, cycles = auth._AUTH_HTTP_TIMEOUT_DEFAULT, auth._AUTH_FLOW_CHALLENGE_MAX_CYCLES
    assert f"[{seconds:.0f} seconds](networking.md#time-outs) each make {3 * seconds:.0f} seconds" in text
    assert 1 + 2 * cycles == 7
    assert "reports each challenge as stale, a login makes seven requests" in text
    usual = inspect.signature(Keeper).parameters["at_once"].default
    assert f"`at_once` logins at a time, {usual} by default" in text


def left_when_dropped(kept: bool) -> AuthManager | None:
    """A manager that has logged in, alone or in a keeper, after its last reference was released."""
    manager = AuthManager(KEY, URL, clock=FakeClock(), _transport=FakeService())
    if kept:
        Keeper(manager).start()
    else:
        manager.authenticate()
    left = weakref.ref(manager)
    del manager
    gc.collect()
    return left()


@pytest.mark.parametrize("kept", [False, True], ids=["manager", "keeper"])
def test_what_is_dropped_without_close_lives_on(kept: bool) -> None:
    before = set(threading.enumerate())
    left = left_when_dropped(kept)
    assert left is not None and left._private_key == KEY
    assert set(threading.enumerate()) - before
    for scheduler in [one for one in gc.get_objects() if isinstance(one, Scheduler)]:
        with scheduler.lock:
            scheduler.close()
    left.close()
    until(lambda: set(threading.enumerate()) <= before, "the end of its thread")
    assert left._private_key is None

"""Programs that fork: their common parts, and how they are run."""

from __future__ import annotations

import textwrap

from . import runs

PRELUDE = """
import base64, json, os, sys, threading, time, warnings
warnings.simplefilter("ignore", DeprecationWarning)
from tessaline import auth
from tests.shared.children import begin_child, end_child, in_child

KEY = "4c0883a69102937d6231471b5dbb6204fe5129617082792ae468d01a3f362318"

def segment(value):
    return base64.urlsafe_b64encode(json.dumps(value).encode()).rstrip(b"=").decode()

class Server:
    def __init__(self):
        self.era = 1
        self.logins = 0
        self.hold = None          # an event: requests wait for it
        self.reached = threading.Event()

    def __call__(self, method, url, headers=None, body=None):
        if self.hold is not None:
            self.reached.set()
            self.hold.wait(20)
        if url.endswith("/auth/challenge"):
            return 200, {}, json.dumps({"challenge_id": "1", "message": "hello"}).encode()
        if url.endswith("/auth/verify"):
            self.logins += 1
            maker = [os.getpid(), self.logins]
            claims = {"sub": manager.get_wallet_address(), "era_number": self.era, "n": maker}
            token = ".".join((segment({}), segment(claims), "signature"))
            secret = base64.b64encode(bytes(32)).decode()
            return 200, {}, json.dumps({"token": token, "expires_at": 0, "wallet_secret": secret}).encode()
        return 200, {}, b"{}"

def until(condition):
    deadline = time.monotonic() + 10
    while not condition():
        assert time.monotonic() < deadline, "it did not come true"
        time.sleep(0.005)

def owner_of(token):
    payload = token.split(".")[1]
    return json.loads(base64.urlsafe_b64decode(payload + "=" * (-len(payload) % 4)))["n"][0]

def serves_and_renews():
    assert manager.get_token() == token
    now[0] += 80000.0
    until(lambda: manager._token != token)
    assert owner_of(manager.get_token()) == os.getpid()
    manager.close()

def loops():
    return [thread for thread in threading.enumerate() if "_refresh_loop" in thread.name]

now = [1000.0]
server = Server()
manager = auth.AuthManager(KEY, "https://auth.example.test", clock=lambda: now[0], _transport=server)
manager.authenticate()
token = manager.get_token()
"""


def check(name: str, program: str) -> None:
    """Run it, by default once; parent and children must exit with status 0 and print nothing."""
    text = PRELUDE + textwrap.dedent(program) + "\nmanager.close()\nprint(time.monotonic(), flush=True)\n"
    command = [runs.PYTHON, "-X", "faulthandler", "-c", text]
    runs.check(f"fork: {name}", command, runs=runs.how_many(1))

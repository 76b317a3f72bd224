"""A child process goes on with the managers that it inherits, as prefork servers need."""

from __future__ import annotations

import subprocess
import sys
import textwrap
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]

PRELUDE = """
import base64, json, os, sys, threading, time, warnings
warnings.simplefilter("ignore", DeprecationWarning)
from tessaline import auth

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

def in_child(body):
    pid = os.fork()
    if pid == 0:
        status = 1
        try:
            body()
            status = 0
        except BaseException:
            import traceback
            traceback.print_exc()
        finally:
            os._exit(status)
    deadline = time.monotonic() + 15
    while True:
        done, status = os.waitpid(pid, os.WNOHANG)
        if done:
            assert status == 0, f"the child ended with {status}"
            return
        if time.monotonic() > deadline:
            os.kill(pid, 9)
            os.waitpid(pid, 0)
            raise AssertionError("the child hangs")
        time.sleep(0.01)

def loops():
    return [thread for thread in threading.enumerate() if "_refresh_loop" in thread.name]

now = [1000.0]
server = Server()
manager = auth.AuthManager(KEY, "https://auth.example.test", clock=lambda: now[0], _transport=server)
manager.authenticate()
token = manager.get_token()
"""

PROGRAMS = {
    "the token is served and renewed": """
        def child():
            assert manager.get_token() == token
            assert len(loops()) == 1
            now[0] += 80000.0
            until(lambda: manager._token != token)
            assert owner_of(manager.get_token()) == os.getpid()
            manager.close()
        in_child(child)
        assert manager.get_token() == token
        assert len(loops()) == 1
    """,
    "the lock was held by a thread of the parent": """
        held, go_on = threading.Event(), threading.Event()
        def hold():
            with manager._lock:
                held.set()
                go_on.wait(20)
        holder = threading.Thread(target=hold)
        holder.start()
        held.wait(10)
        def child():
            assert manager.get_token() == token
            manager.close()
        in_child(child)
        go_on.set()
        holder.join(10)
        assert manager.get_token() == token
    """,
    "an event was being set by a thread of the parent": """
        manager._refresh_event._cond.acquire()
        def child():
            assert manager.get_token() == token
            until(lambda: loops())
            manager.close()
        in_child(child)
        manager._refresh_event._cond.release()
    """,
    "a refresh was running in the parent": """
        server.hold = threading.Event()
        now[0] += 70000.0 + 5000.0
        server.reached.wait(10)
        until(lambda: manager._state == "RE_AUTHENTICATING")
        def child():
            server.hold.set()
            assert owner_of(manager.get_token()) in (os.getppid(), os.getpid())
            until(lambda: owner_of(manager._token) == os.getpid())
            assert owner_of(manager.get_token()) == os.getpid()
            manager.close()
        in_child(child)
        server.hold.set()
        until(lambda: manager._token != token)
    """,
    "an announced era was being met in the parent": """
        server.hold = threading.Event()
        server.era = 5
        manager.notify_era_change(5)
        server.reached.wait(10)
        def child():
            server.hold.set()
            fresh = manager.get_token()
            assert owner_of(fresh) == os.getpid() and fresh != token
            assert manager._pending_era_number is None
            manager.close()
        in_child(child)
        server.hold.set()
        until(lambda: manager._pending_era_number is None)
    """,
    "a first login was running in the parent": """
        manager.close()
        manager = auth.AuthManager(KEY, "https://auth.example.test", _transport=server)
        server.hold = threading.Event()
        login = threading.Thread(target=manager.authenticate)
        login.start()
        server.reached.wait(10)
        def child():
            server.hold.set()
            try:
                manager.get_token()
                raise SystemExit("served")
            except auth.AuthError as error:
                assert error.reason == "not_authenticated"
            manager.authenticate()
            assert owner_of(manager.get_token()) == os.getpid()
            manager.close()
        in_child(child)
        server.hold.set()
        login.join(10)
        assert owner_of(manager.get_token()) == os.getpid()
    """,
    "a closed manager stays closed": """
        manager.close()
        def child():
            for call in (manager.get_token, manager.authenticate):
                try:
                    call()
                    raise SystemExit("served")
                except auth.AuthError as error:
                    assert error.reason == "manager_closed"
            assert loops() == []
        in_child(child)
    """,
    "the transport itself forks": """
        plain = server.__call__
        children = []
        def transport(method, url, headers=None, body=None):
            if url.endswith("/auth/challenge") and not children:
                pid = os.fork()
                children.append(pid)
            return plain(method, url, headers, body)
        manager._transport = transport
        manager.authenticate()
        assert owner_of(manager.get_token()) == os.getpid()
        if children[0] == 0:
            manager.close()
            os._exit(0)
        deadline = time.monotonic() + 10
        while os.waitpid(children[0], os.WNOHANG) == (0, 0):
            assert time.monotonic() < deadline
            time.sleep(0.01)
    """,
    "a child of a child": """
        def grandchild():
            assert manager.get_token() == token
            now[0] += 80000.0
            until(lambda: manager._token != token)
            manager.close()
        def child():
            assert manager.get_token() == token
            in_child(grandchild)
            assert manager.get_token() == token
            manager.close()
        in_child(child)
    """,
    "many threads of the child come at once": """
        def child():
            seen = []
            threads = [threading.Thread(target=lambda: seen.append(manager.get_token())) for _ in range(32)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join(10)
            assert seen == [token] * 32
            until(lambda: len(loops()) == 1)
            manager.close()
        in_child(child)
    """,
}


@pytest.mark.parametrize("case", PROGRAMS)
def test_after_a_fork(case: str) -> None:
    program = PRELUDE + textwrap.dedent(PROGRAMS[case]) + "\nmanager.close()\n"
    result = subprocess.run(
        [sys.executable, "-X", "faulthandler", "-c", program],
        cwd=ROOT,
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert (result.returncode, result.stderr) == (0, "")

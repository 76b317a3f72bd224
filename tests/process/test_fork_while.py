"""A fork while other threads are in the middle of something: the child does not wait for their locks."""

from __future__ import annotations

import textwrap

import pytest

from . import forking

pytestmark = pytest.mark.process

# Another thread waits at the point where it sets `reached`, until `go_on`.
ELSEWHERE = """
reached, go_on = threading.Event(), threading.Event()

def stay_here(*_, **__):
    reached.set()
    go_on.wait(20)

def elsewhere(call, *arguments):
    thread = threading.Thread(target=call, args=arguments)
    thread.start()
    assert reached.wait(10)
    return thread

def renews_at_once():
    assert owner_of(manager.get_token()) in (os.getppid(), os.getpid())
    until(lambda: owner_of(manager._token) == os.getpid())
    manager.close()

def come_back(thread):
    go_on.set()
    thread.join(20)
    assert not thread.is_alive()
"""

# The same server behind a proxy that identifies connections by their ports and can hold some.
OVER_HTTP = """
import http.server

class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_POST(self):
        ports.append(self.client_address[1])
        if self.client_address[1] in held:
            stay_here()
        self.rfile.read(int(self.headers["Content-Length"]))
        status, _, body = server("POST", self.path)
        self.send_response(status)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass

ports, held = [], set()
listener = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
listener.daemon_threads = True
threading.Thread(target=listener.serve_forever, daemon=True).start()
manager.close()
manager = auth.AuthManager(KEY, f"http://127.0.0.1:{listener.server_port}", clock=lambda: now[0])
manager.authenticate()
token = manager.get_token()
"""

PROGRAMS = {
    "a result is being stored": """
        known = auth._assert_token_subject_matches_wallet
        def check(*arguments):
            if os.getpid() == parent:
                stay_here()
            return known(*arguments)
        parent = os.getpid()
        auth._assert_token_subject_matches_wallet = check
        now[0] += 75000.0
        assert reached.wait(10)
        assert manager._lock.locked()
        in_child(renews_at_once)
        go_on.set()
        until(lambda: manager._token != token)
    """,
    "a close is waiting for the refresh thread": """
        server.hold = go_on
        now[0] += 75000.0
        assert server.reached.wait(10)
        closer = threading.Thread(target=manager.close)
        closer.start()
        until(lambda: manager._state == "CLOSED")
        def child():
            for call in (manager.get_token, manager.authenticate):
                try:
                    call()
                    raise SystemExit("served")
                except auth.AuthError as error:
                    assert error.reason == "manager_closed"
            manager.close()
            assert manager._private_key is None
            assert loops() == []
        in_child(child)
        come_back(closer)
    """,
    "a close has just begun": """
        class Staying(type(manager._close_event)):
            def set(self):
                if os.getpid() == parent:
                    stay_here()
                super().set()
        parent = os.getpid()
        manager._close_event = Staying()
        closer = elsewhere(manager.close)
        def child():
            manager.close()
            try:
                manager.get_token()
                raise SystemExit("served")
            except auth.AuthError as error:
                assert error.reason == "manager_closed"
            assert [manager._private_key, manager._token, manager._wallet_secret] == [None] * 3
            assert manager._close_event.is_set()
        in_child(child)
        come_back(closer)
    """,
    "the host is writing to its log": """
        import logging
        logging.basicConfig(stream=open(os.devnull, "w"), level=1)
        handler = logging.getLogger().handlers[0]
        def write():
            with handler.lock:
                stay_here()
        writer = elsewhere(write)
        seen = []
        def transport(method, url, headers=None, body=None):
            seen.append(url)
            limited = 429, {"Retry-After": "soon"}, b""
            return limited if len(seen) == 1 else server(method, url, headers, body)
        manager._transport = transport
        manager._wait_with_clock = lambda seconds: None
        def child():
            serves_and_renews()
            assert seen[0] == seen[1]
        in_child(child)
        come_back(writer)
    """,
    "the host is importing a module": """
        import tempfile
        sys.stay_here = stay_here
        with tempfile.TemporaryDirectory() as folder:
            with open(os.path.join(folder, "slow_to_import.py"), "w") as file:
                file.write("import sys; sys.stay_here()")
            sys.path.insert(0, folder)
            importer = elsewhere(__import__, "slow_to_import")
            in_child(serves_and_renews)
            come_back(importer)
    """,
    "the import lock is held": """
        import _imp
        def hold():
            _imp.acquire_lock()
            reached.set()
            # The fork waits for it.
            time.sleep(0.05)
            _imp.release_lock()
        holder = elsewhere(hold)
        in_child(serves_and_renews)
        come_back(holder)
    """,
    "the events' locks are held": """
        locks = [getattr(manager, name)._cond for name in
                 ("_refresh_event", "_refresh_stop", "_close_event", "_refresh_pending", "_refresh_done")]
        def hold():
            for lock in locks:
                lock.acquire()
            stay_here()
            for lock in locks:
                lock.release()
        holder = elsewhere(hold)
        in_child(serves_and_renews)
        come_back(holder)
    """,
    "the clock is being read": """
        plain = manager._clock
        def slow():
            if threading.current_thread() is not threading.main_thread() and not go_on.is_set():
                stay_here()
            return plain()
        manager._clock = slow
        assert reached.wait(10)
        def child():
            go_on.set()
            serves_and_renews()
        in_child(child)
        go_on.set()
    """,
    "callers wait for a login": """
        server.hold = go_on
        callers = [threading.Thread(target=manager.authenticate) for _ in range(4)]
        for caller in callers:
            caller.start()
        assert server.reached.wait(10)
        until(lambda: manager._auth_event is not None and len(manager._auth_event._cond._waiters) == 3)
        def child():
            go_on.set()
            serves_and_renews()
        in_child(child)
        for caller in callers:
            come_back(caller)
    """,
    "a rename is under way": """
        server.hold = go_on
        renamer = threading.Thread(target=manager.set_display_name, args=("Ada",))
        renamer.start()
        assert server.reached.wait(10)
        def child():
            go_on.set()
            assert manager.set_display_name("Bob") == {}
            serves_and_renews()
        in_child(child)
        come_back(renamer)
    """,
}

OVER_HTTP_PROGRAMS = {
    "a refresh waits for its answer": """
        held.update(ports)
        now[0] += 75000.0
        assert reached.wait(10)
        before = len(ports)
        def child():
            fresh = manager.get_token()
            until(lambda: manager._token != token)
            manager.close()
        in_child(child)
        assert len(ports) > before
        assert not held & set(ports[before:])
        go_on.set()
        until(lambda: manager._token != token)
    """,
    "connections are idle": """
        def child():
            manager.authenticate()
            manager.close()
        used = set(ports)
        children = [begin_child(child) for _ in range(8)]
        for one in children:
            end_child(one)
        assert len(set(ports) - used) == 8
        before = len(ports)
        manager.authenticate()
        assert set(ports[before:]) <= used
    """,
}

# Five busy threads, and a fork at any time.
STORM = """
stop = threading.Event()

def again_and_again(call):
    while not stop.is_set():
        try:
            call()
        except (auth.AuthError, auth.ProfileError):
            pass

def one_more_manager():
    one = auth.AuthManager(KEY, manager._server_url, clock=manager._clock, _transport=manager._transport)
    one.authenticate()
    one.close()

calls = [
    manager.get_token,
    manager.get_token_expiry,
    manager.authenticate,
    lambda: manager.set_display_name("Ada"),
    one_more_manager,
]
threads = [threading.Thread(target=again_and_again, args=(call,)) for call in calls]
for thread in threads:
    thread.start()

def child():
    stop.set()
    earlier = manager._token
    manager.authenticate()
    assert manager.get_token() != earlier
    manager.close()

for _ in range(10):
    in_child(child)
stop.set()
for thread in threads:
    thread.join(20)
    assert not thread.is_alive()
"""


@pytest.mark.parametrize("case", PROGRAMS)
def test_a_fork_while(case: str) -> None:
    forking.check(f"while {case}", ELSEWHERE + textwrap.dedent(PROGRAMS[case]))


@pytest.mark.parametrize("case", OVER_HTTP_PROGRAMS)
def test_a_fork_over_http_while(case: str) -> None:
    forking.check(
        f"over HTTP while {case}", ELSEWHERE + OVER_HTTP + textwrap.dedent(OVER_HTTP_PROGRAMS[case])
    )


def test_forks_in_a_storm() -> None:
    forking.check("storm", STORM)


def test_forks_in_a_storm_over_http() -> None:
    forking.check("storm over HTTP", ELSEWHERE + OVER_HTTP + STORM)

"""A child process can use the managers that it inherits, as prefork servers need."""

from __future__ import annotations

import pytest

from . import forking

pytestmark = pytest.mark.process

PROGRAMS = {
    "the token is served and renewed": """
        def child():
            assert manager.get_token() == token
            assert len(loops()) == 1
            serves_and_renews()
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
        def child():
            assert manager.get_token() == token
            in_child(serves_and_renews)
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
    "four generations": """
        def generation(left):
            def live():
                assert manager.get_token() == token
                if left:
                    in_child(generation(left - 1))
                serves_and_renews()
            return live
        in_child(generation(3))
        assert manager.get_token() == token
    """,
    "eight children at once": """
        children = [begin_child(serves_and_renews) for _ in range(8)]
        for child in children:
            end_child(child)
        assert manager.get_token() == token
        assert len(loops()) == 1
    """,
    "a thread other than the main one forks": """
        forker = threading.Thread(target=in_child, args=(serves_and_renews,))
        forker.start()
        forker.join(20)
        assert not forker.is_alive()
        assert manager.get_token() == token
    """,
    "a pool of workers": """
        import multiprocessing
        def work(_):
            assert manager.get_token() == token
            return os.getpid()
        with multiprocessing.get_context("fork").Pool(4) as pool:
            assert os.getpid() not in pool.map_async(work, range(64)).get(20)
        assert manager.get_token() == token
    """,
}


@pytest.mark.parametrize("case", PROGRAMS)
def test_after_a_fork(case: str) -> None:
    forking.check(case, PROGRAMS[case])

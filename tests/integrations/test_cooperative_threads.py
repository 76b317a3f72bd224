"""The transports for gevent and eventlet with pools, threads and forks."""

from __future__ import annotations

import textwrap

import pytest

from devserver.testing import DevServer
from tests.integrations.hubs import each_library, run
from tests.sanitized import moves_stacks

pytestmark = moves_stacks


@each_library
def test_a_pool_bounds_the_requests_at_one_time(server: DevServer, library: str) -> None:
    pooled = {
        "gevent": """
            from gevent.threadpool import ThreadPool
            usual = gevent.get_hub().threadpool
            assert usual.maxsize == 10 and gevent.get_hub().resolver.pool is usual
            one = transport(pool=ThreadPool(3))
        """,
        "eventlet": """
            from eventlet import tpool
            assert tpool._nthreads == 20
            tpool.set_num_threads(3)
            one = transport()
        """,
    }
    program = """
        ticks = Ticks()
        server.hold("challenge")
        asking = [spawn(ask, one) for _ in range(30)]
        until(lambda: server.count("challenge") == 3)
        ticks.go_on()
        assert server.count("challenge") == 3
        server.let_go("challenge")
        until(lambda: all(each.dead for each in asking))
        assert server.count("challenge") == 30
    """
    run(server, library, textwrap.dedent(pooled[library]) + textwrap.dedent(program))


@each_library
def test_a_thread_without_a_hub_makes_its_requests_itself(server: DevServer, library: str) -> None:
    hub_here = {
        "gevent": "from gevent._hub_local import get_hub_if_exists as hub_here",
        "eventlet": "from eventlet import hubs\nhub_here = lambda: getattr(hubs._threadlocal, 'hub', None)",
    }
    program = """
        where = lambda *_, **__: threading.get_ident()
        one, seen = transport(where), []
        def elsewhere():
            seen.append(one("POST", server.url))
            seen.append(hub_here())
        thread = threading.Thread(target=elsewhere)
        thread.start()
        thread.join(15)
        assert seen == [thread.ident, None], seen
        # This one has no hub either until there is another greenlet.
        assert one("POST", server.url) == threading.get_ident()
        Ticks()
        assert one("POST", server.url) != threading.get_ident()
        # With a hub, but not that of the pool.
        other = transport(where, pool=gevent.get_hub().threadpool) if "gevent" in sys.modules else one
        def with_hub():
            sleep(0)
            seen.append(other("POST", server.url))
            seen.append(hub_here() is not None)
        thread = threading.Thread(target=with_hub)
        thread.start()
        thread.join(15)
        assert seen[2:] == [thread.ident, True], seen
    """
    run(server, library, f"{hub_here[library]}\n{textwrap.dedent(program)}", patched=False)


@pytest.mark.parametrize(
    ("fork", "cooperates"),
    [
        ("gevent, patched", True),
        ("gevent, told", True),
        ("gevent, not told", False),
        ("eventlet", False),
        ("eventlet, first used in the child", True),
    ],
)
def test_it_goes_on_in_a_forked_child(server: DevServer, fork: str, cooperates: bool) -> None:
    program = f"""
        native = http.transport(timeout=0.2)
        with new_manager(transport()) as manager:
            if {"first" not in fork}:
                ticks = Ticks()
                manager.authenticate()
            pid = os.fork()
            if pid == 0:
                try:
                    if {fork == "gevent, told"}:
                        gevent.reinit()
                    ticks = Ticks()
                    manager.authenticate()
                    server.hold("challenge")
                    before = ticks.count
                    try:
                        ask(transport(native))
                    except TimeoutError:
                        assert (ticks.count > before) is {cooperates}
                        os._exit(0)
                finally:
                    os._exit(1)
            assert os.waitpid(pid, 0)[1] == 0
    """
    run(server, fork.partition(",")[0], program, patched="told" not in fork)


@each_library
def test_a_program_ends_that_has_given_up_a_request(server: DevServer, library: str) -> None:
    # gevent abandons the request; eventlet waits for its end.
    program = f"""
        server.hold("challenge")
        native = http.transport(timeout={30.0 if library == "gevent" else 0.5})
        asking = spawn(ask, transport(native))
        until(lambda: server.count("challenge") == 1)
        asking.kill()
        print(time.monotonic(), flush=True)
    """
    run(server, library, program)

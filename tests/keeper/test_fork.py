"""A child process can use the keeper that it inherits, as prefork servers need."""

from __future__ import annotations

import pytest

from .support import programs

pytestmark = pytest.mark.process

PROGRAMS = {
    "the token is served and renewed in the child": """
        keeper = Keeper(fleet(service, clock, 1))
        keeper.start()
        token = keeper.get_token()
        def child():
            assert keeper.get_token(timeout=0) == token
            for _ in range(3):
                before = len(service.granted)
                clock.now += 0.7 * LIFETIME
                until(lambda: len(service.granted) == before + 1)
                until(lambda: keeper.get_token(timeout=0) == service.granted[-1].token)
            names = [thread.name for thread in threading.enumerate()]
            assert names.count("tessaline-keeper") == 1, names
            keeper.close()
            until(lambda: threading.active_count() == 1)
        in_child(child)
        assert keeper.get_token(timeout=0) == token
        clock.now += 0.7 * LIFETIME
        until(lambda: keeper.get_token(timeout=0) != token)
        keeper.close()
    """,
    "children of children": """
        keeper = Keeper(fleet(service, clock, 3))
        keeper.start()
        def grandchild():
            clock.now += 0.7 * LIFETIME
            until(lambda: len(service.granted) == 6)
            keeper.close()
        def child():
            in_child(grandchild)
            clock.now += 0.7 * LIFETIME
            until(lambda: len(service.granted) == 6)
            keeper.close()
        in_child(child)
        keeper.close()
    """,
    "a keeper that was not started is started by each": """
        keeper = Keeper(fleet(service, clock, 2))
        def child():
            keeper.start()
            for one in keeper:
                assert keeper[one].get_token(timeout=0) == service.newest(one)
            keeper.close()
        children = [begin_child(child) for _ in range(2)]
        keeper.start()
        for pid in children:
            end_child(pid)
        keeper.close()
    """,
    "a renewal was under way in the parent": """
        keeper = Keeper(fleet(service, clock, 1))
        keeper.start()
        token = keeper.get_token()
        gate = service.hold()
        clock.now += 0.7 * LIFETIME
        gate.reached()
        def child():
            assert keeper.get_token(timeout=0) == token
            service.let_go()
            until(lambda: len(service.granted) == 2)
            until(lambda: keeper.get_token(timeout=0) == service.granted[1].token)
            keeper.close()
        in_child(child)
        service.let_go()
        until(lambda: keeper.get_token(timeout=0) != token)
        keeper.close()
    """,
    "the first login was under way in the parent": """
        keeper = Keeper(fleet(service, clock, 2))
        gate = service.hold()
        keeper.start(wait=False)
        gate.reached()
        def child():
            service.let_go()
            for one in keeper:
                assert keeper[one].get_token() == service.newest(one)
            keeper.close()
        in_child(child)
        service.let_go()
        keeper.start()
        keeper.close()
    """,
    "somebody waited in the parent": """
        keeper = Keeper(fleet(service, clock, 1))
        gate = service.hold()
        keeper.start(wait=False)
        gate.reached()
        got = []
        waiting = threading.Thread(target=lambda: got.append(keeper.get_token(timeout=None)))
        waiting.start()
        time.sleep(0.02)
        def child():
            service.let_go()
            assert keeper.get_token() == service.granted[0].token
            keeper.close()
        in_child(child)
        service.let_go()
        waiting.join(10)
        assert got == [service.granted[0].token]
        keeper.close()
    """,
    "the server was away": """
        service.fault = away()
        keeper = Keeper(fleet(service, clock, 1))
        keeper.start(wait=False)
        until(lambda: keeper.status().failures)
        def child():
            service.heal()
            clock.now += 1000.0
            assert keeper.get_token() == service.granted[0].token
            keeper.close()
        in_child(child)
        keeper.close()
    """,
    "a wallet had stopped": """
        def refuse(asked):
            return (401, {}, b"")
        service.fault = refuse
        keeper = Keeper(fleet(service, clock, 1))
        assert reason_of(keeper.start) == "unauthorized"
        def child():
            assert reason_of(keeper.get_token) == "unauthorized"
            assert keeper.status().state == "stopped"
            service.heal()
            keeper.start()
            assert keeper.get_token(timeout=0) == service.granted[0].token
            keeper.close()
        in_child(child)
        assert reason_of(keeper.get_token) == "unauthorized"
        keeper.close()
    """,
    "a closed keeper stays closed": """
        keeper = Keeper(fleet(service, clock, 1))
        keeper.start()
        keeper.close()
        def child():
            for call in (keeper.get_token, keeper.start):
                assert reason_of(call) == "manager_closed"
            assert keeper.status().state == "closed"
            keeper.close()
        in_child(child)
    """,
    "the child closes what its parent goes on with": """
        keeper = Keeper(fleet(service, clock, 2))
        keeper.start()
        in_child(keeper.close)
        clock.now += 0.7 * LIFETIME
        until(lambda: len(service.granted) == 4)
        keeper.close()
    """,
    "a child that uses nothing of it": """
        keeper = Keeper(fleet(service, clock, 2))
        keeper.start()
        in_child(lambda: None)
        keeper.close()
    """,
    "children do not renew in step": """
        keeper = Keeper(fleet(service, clock, 1))
        keeper.start()
        read, write = os.pipe()
        def child():
            keeper.get_token()
            until(lambda: keeper.status().next_attempt is not None)
            os.write(write, f"{keeper.status().next_attempt}\\n".encode())
            keeper.close()
        for pid in [begin_child(child) for _ in range(6)]:
            end_child(pid)
        os.close(write)
        times = os.read(read, 4096).split()
        assert len(times) == 6 and len(set(times)) >= 5, times
        began = clock.now
        assert all(0.56 * LIFETIME <= float(one) - began <= 0.64 * LIFETIME for one in times), times
        keeper.close()
    """,
    "forks in the middle of everything": """
        keeper = Keeper(fleet(service, clock, 6), at_once=3)
        keeper.start()
        over = threading.Event()
        def ask():
            while not over.is_set():
                for one in keeper:
                    keeper[one].get_token()
                    keeper.status()
        def announce():
            era = 1
            while not over.is_set():
                era += 1
                service.era = era
                keeper.notify_era_change(era)
                time.sleep(0.002)
        threads = [threading.Thread(target=work) for work in (ask, ask, announce)]
        for thread in threads:
            thread.start()
        def child():
            # The era of its service is constant here, so it uses one that exists.
            service.era = 10**6
            keeper.status()
            for one in keeper:
                assert keeper[one].get_token()
            keeper.close()
        for _ in range(8):
            in_child(child)
        over.set()
        for thread in threads:
            thread.join(10)
        keeper.close()
    """,
}


@pytest.mark.parametrize("name", PROGRAMS)
def test_fork(name: str) -> None:
    programs.run(PROGRAMS[name])

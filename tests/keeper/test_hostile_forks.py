"""Forks while keepers are not started, clocks are slow, or several threads fork: no lock stays locked."""

from __future__ import annotations

import pytest

from .support import programs

pytestmark = pytest.mark.process

PRELUDE = (
    programs.PRELUDE
    + """
import tessaline.keeper.forks as forks
from tests.keeper.support.looks import WatchedClock
from tests.keeper.support.looks import SCHEDULER
from tests.shared.threads import Worker, within

def slow_clock(name):
    # A clock that can be blocked where threads of this name read it: the clock, and who reads it.
    clock = WatchedClock()
    clock.reached, clock.may_go = threading.Event(), threading.Event()
    clock.is_slow = False
    def hold():
        if clock.is_slow and threading.current_thread().name == name:
            clock.reached.set()
            assert clock.may_go.wait(10)
    clock.before = hold
    return clock

# Every fork reports its begin; registered after the keeper's import, so it runs before its hook.
begun = threading.Semaphore(0)
os.register_at_fork(before=begun.release)
"""
)

PROGRAMS = {
    "another thread is starting a keeper": """
        forks._PATIENCE = 0.05
        clock = slow_clock(Worker.NAME)
        clock.is_slow = True
        keeper = Keeper(manager(service, clock))
        starting = Worker(keeper.start)
        assert clock.reached.wait(10)
        def child():
            clock.is_slow = False
            within(5, keeper.start)
            assert keeper.get_token(timeout=0) == service.granted[0].token
            keeper.close()
        in_child(child)
        clock.may_go.set()
        starting.result()
        assert keeper.get_token(timeout=0) == service.granted[0].token
        keeper.close()
    """,
    "another thread asks a keeper for its status that is not started": """
        sys.setswitchinterval(1e-5)
        keeper = Keeper(fleet(service, clock, 50))
        over = threading.Event()
        def ask():
            while not over.is_set():
                keeper.status()
        asking = [threading.Thread(target=ask) for _ in range(2)]
        for thread in asking:
            thread.start()
        def child():
            signal.alarm(5)
            keeper.start(wait=False)
            assert keeper.status().state != "not started"
        for pid in [begin_child(child) for _ in range(10)]:
            end_child(pid)
        over.set()
        for thread in asking:
            thread.join(10)
        keeper.close()
    """,
    "a signal handler forks while its thread waits": """
        def lack(asked):
            raise MemoryError
        service.fault = lack
        keeper = Keeper(fleet(service, clock, 1))
        keeper.start(wait=False)
        until(lambda: keeper.status().failures)
        children = []
        def fork(*_):
            children.append(os.fork())
            signal.alarm(5)
            service.heal()
            clock.now += 1000.0
        signal.signal(signal.SIGUSR1, fork)
        def interrupt():
            time.sleep(0.05)
            os.kill(os.getpid(), signal.SIGUSR1)
        threading.Thread(target=interrupt).start()
        # Parent and child return from the same wait.
        assert keeper.get_token(timeout=None) == service.granted[-1].token
        keeper.close()
        if children == [0]:
            os._exit(0)
        end_child(*children)
    """,
    "two threads fork while a keeper takes its time": """
        clocks = [slow_clock(SCHEDULER) for _ in range(3)]
        keepers = [Keeper(manager(service, clock, number)) for number, clock in enumerate(clocks)]
        for keeper in keepers:
            keeper.start()
        # Each is the slow one once, whichever a fork takes last.
        for clock in clocks:
            clock.is_slow = True
            assert clock.reached.wait(10)
            forking = []
            for _ in range(2):
                forking.append(Worker(in_child, lambda: None))
                assert begun.acquire(timeout=10)
                time.sleep(0.02)
            clock.is_slow = False
            clock.may_go.set()
            for one in forking:
                one.result(10)
            for keeper in keepers:
                assert within(5, keeper.status).state == "good"
        assert forks._held == {}
        for keeper in keepers:
            keeper.close()
    """,
    "two threads fork, and lose their patience": """
        forks._PATIENCE = 0.05
        clocks = [slow_clock(SCHEDULER) for _ in range(3)]
        keepers = [Keeper(manager(service, clock, number)) for number, clock in enumerate(clocks)]
        for keeper in keepers:
            keeper.start()
        def child():
            for clock in clocks:
                clock.may_go.set()
            for keeper in keepers:
                assert within(5, keeper.status).state == "good"
                keeper.close()
        for clock in clocks:
            clock.is_slow = True
            assert clock.reached.wait(10)
            for one in [Worker(in_child, child) for _ in range(2)]:
                one.result(10)
            clock.is_slow = False
            clock.may_go.set()
            for keeper in keepers:
                assert within(5, keeper.status).state == "good"
        for keeper in keepers:
            keeper.close()
    """,
    "a hook of the program's waits for who asks the keeper": """
        forking, hung = threading.Event(), []
        def ask():
            assert forking.wait(10)
            keeper.status()
        asking = threading.Thread(target=ask, daemon=True)
        def wait_for_it():
            forking.set()
            asking.join(3)
            hung.append(asking.is_alive())
        os.register_at_fork(before=wait_for_it)
        keeper = Keeper(fleet(service, clock, 1))
        keeper.start()
        asking.start()
        in_child(lambda: None)
        assert hung == [False], hung
        keeper.close()
    """,
    "a clock raises": """
        keepers = [Keeper(manager(service, clock, number)) for number in range(2)]
        gate = service.hold()
        for keeper in keepers:
            keeper.start(wait=False)
            gate.reached()
        clock.error = OSError("the clock is away")
        def child():
            service.let_go()
            clock.error = None
            def step():
                clock.now += 1.0
            for keeper in keepers:
                until(lambda: step() or keeper.status().state == "good")
                keeper.close()
        in_child(child)
        clock.error = None
        service.let_go()
        for keeper in keepers:
            keeper.start()
            keeper.close()
    """,
}


@pytest.mark.parametrize("name", PROGRAMS)
def test_fork(name: str) -> None:
    programs.run(PROGRAMS[name], prelude=PRELUDE)

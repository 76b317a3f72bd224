"""Separate programs: what an import loads, forks, and an exit while tasks wait."""

from __future__ import annotations

import subprocess
import sys
import textwrap

import pytest

from tests.process import forking, runs
from tests.sanitized import patience

pytestmark = pytest.mark.process

PRELUDE = """
import asyncio, sys, threading, time
from tessaline.aio import AsyncTokens

class Source:
    def __init__(self):
        self.gate = threading.Event()
        self.asked = threading.Event()

    def get_token(self):
        self.asked.set()
        self.gate.wait(60)
        return "the token"

source = Source()
tokens = AsyncTokens(source)
"""

ENDINGS = {
    "after a time-out": """
        async def main():
            try:
                await asyncio.wait_for(tokens.get_token(), 0.05)
            except TimeoutError:
                return
            sys.exit("served")
        asyncio.run(main())
    """,
    "with a task that waits": """
        async def main():
            waiting = asyncio.create_task(tokens.get_token())
            while not source.asked.is_set():
                await asyncio.sleep(0.001)
        asyncio.run(main())
    """,
    "in a loop that is neither ended nor closed": """
        loop = asyncio.new_event_loop()
        waiting = loop.create_task(tokens.get_token())
        waiting._log_destroy_pending = False
        loop.run_until_complete(asyncio.sleep(0))
    """,
    "while a daemon thread has a loop whose tasks wait": """
        threading.Thread(target=lambda: asyncio.run(tokens.get_token()), daemon=True).start()
        source.asked.wait(20)
    """,
    "under trio": """
        import trio
        async def main():
            with trio.move_on_after(0.05):
                await tokens.get_token()
                sys.exit("served")
        trio.run(main)
    """,
    "after close, with an answer on its way": """
        async def main():
            waiting = asyncio.create_task(tokens.get_token())
            while not source.asked.is_set():
                await asyncio.sleep(0.001)
            await tokens.aclose()
            source.gate.set()
            try:
                await waiting
            except Exception as error:
                assert error.reason == "manager_closed"
        asyncio.run(main())
    """,
}

FORKS = {
    "a task of the parent waits": """
        import asyncio
        from tessaline.aio import AsyncTokens

        class Source:
            def __init__(self):
                self.gate, self.asked = threading.Event(), threading.Event()
            def get_token(self):
                self.asked.set()
                self.gate.wait(20)
                return f"token of {os.getpid()}"

        source = Source()
        tokens = AsyncTokens(source)
        seen = []
        parent = threading.Thread(target=lambda: seen.append(asyncio.run(tokens.get_token())))
        parent.start()
        source.asked.wait(10)
        tokens._waiter._lock.acquire()
        def child():
            source.gate = threading.Event()
            source.gate.set()
            assert asyncio.run(asyncio.wait_for(tokens.get_token(), 10)) == f"token of {os.getpid()}"
            until(lambda: not [thread for thread in threading.enumerate() if "waiter" in thread.name])
            in_child(lambda: asyncio.run(asyncio.wait_for(tokens.get_token(), 10)))
        in_child(child)
        tokens._waiter._lock.release()
        source.gate.set()
        parent.join(10)
        assert seen == [f"token of {os.getpid()}"]
    """,
    "a closed one stays closed": """
        import asyncio
        from tessaline.aio import AsyncTokens
        tokens = AsyncTokens(manager)
        asyncio.run(tokens.aclose())
        def child():
            try:
                asyncio.run(tokens.get_token())
                raise SystemExit("served")
            except auth.AuthError as error:
                assert error.reason == "manager_closed"
        in_child(child)
    """,
    "a manager that is only looked at renews in the child": """
        from tessaline._ready import ready_token
        def child():
            assert ready_token(manager) == token
            assert len(loops()) == 1
            serves_and_renews()
        in_child(child)
        assert ready_token(manager) == token
    """,
    "a thread of the parent holds the lock of the manager": """
        from tessaline._ready import ready_token
        held, go_on = threading.Event(), threading.Event()
        def hold():
            with manager._lock:
                held.set()
                go_on.wait(20)
        holder = threading.Thread(target=hold)
        holder.start()
        held.wait(10)
        assert ready_token(manager) is None
        def child():
            assert ready_token(manager) == token
            manager.close()
            assert ready_token(manager) is None
        in_child(child)
        go_on.set()
        holder.join(10)
        assert ready_token(manager) == token
    """,
    "an era that the parent meets is the child's to meet": """
        from tessaline._ready import ready_token
        server.hold = threading.Event()
        server.era = 5
        manager.notify_era_change(5)
        server.reached.wait(10)
        def child():
            assert ready_token(manager) is None
            server.hold.set()
            fresh = manager.get_token()
            assert owner_of(fresh) == os.getpid() and ready_token(manager) == fresh
            manager.close()
        in_child(child)
        server.hold.set()
        until(lambda: manager._pending_era_number is None)
    """,
}


def command(program: str) -> list[str]:
    return [sys.executable, "-X", "faulthandler", "-W", "error", "-c", PRELUDE + textwrap.dedent(program)]


@pytest.mark.parametrize("case", ENDINGS)
def test_a_program_ends_while_the_source_goes_on(case: str) -> None:
    told = "\nprint(time.monotonic(), flush=True)\n"
    runs.check(f"aio: {case}", command(textwrap.dedent(ENDINGS[case]) + told), runs=runs.how_many(1))


@pytest.mark.parametrize("case", FORKS)
def test_after_a_fork(case: str) -> None:
    forking.check(f"aio: {case}", FORKS[case])


def test_neither_trio_nor_anyio_is_imported_for_asyncio() -> None:
    program = """
        source.gate.set()
        assert asyncio.run(tokens.get_token()) == "the token"
        print(sorted({"trio", "anyio", "sniffio", "outcome"} & set(sys.modules)))
    """
    done = subprocess.run(command(program), check=True, capture_output=True, text=True, timeout=patience(20))
    assert done.stdout == "[]\n"

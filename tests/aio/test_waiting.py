"""Tasks that wait for a source: one thread for all, and each task independently."""

from __future__ import annotations

import asyncio
import sys
import time
from collections.abc import Awaitable, Callable, Coroutine, Generator
from typing import Any

import anyio
import pytest

from tessaline.aio import AsyncTokens
from tests.sanitized import patience
from tests.shared.threads import Worker, join, native_threads, until

from .support import LIBRARIES, Crowd, Source, eventually, leave_waiting, run, waiter_threads

MOST_THREADS = 3
LOOK_UP_SECONDS = patience(0.02)


def test_a_task_gets_what_the_source_returns(library: str) -> None:
    source = Source("the token")
    source.open()
    assert run(library, AsyncTokens(source).get_token) == "the token"


def test_a_thousand_tasks_wait_on_one_thread_and_hold_nobody_up(library: str) -> None:
    source = Source()
    tokens = AsyncTokens(source)

    async def main() -> list[Any]:
        before = native_threads()
        async with Crowd() as crowd:
            await crowd.add(tokens.get_token, 1000)
            looks = []
            for _ in range(5):
                begun = time.monotonic()
                await anyio.getaddrinfo("127.0.0.1", 443)
                looks.append(time.monotonic() - begun)
            # DNS lookups have started one of the loop's own.
            assert native_threads() - before <= MOST_THREADS
            assert len(waiter_threads()) == 1
            assert min(looks) <= LOOK_UP_SECONDS
            source.open()
        return crowd.outcomes

    outcomes = run(library, main)
    assert len(outcomes) == 1000
    assert set(outcomes) <= {"token 1", "token 2"}
    assert len(source.calls) <= 2


def test_a_task_is_not_given_what_was_asked_for_before_it_came(library: str) -> None:
    source = Source("an old token", "a new token")
    tokens = AsyncTokens(source)

    async def main() -> list[Any]:
        async with Crowd() as early, Crowd() as late:
            await early.add(tokens.get_token)
            await eventually(lambda: source.calls, "the first call")
            await late.add(tokens.get_token, 10)
            source.let_go(2)
        return [early.outcomes, late.outcomes]

    assert run(library, main) == [["an old token"], ["a new token"] * 10]


def test_a_cancelled_task_leaves_the_others_alone(library: str) -> None:
    source = Source()
    tokens = AsyncTokens(source)

    async def main() -> list[Any]:
        async with Crowd() as staying:
            await staying.add(tokens.get_token, 2)
            async with Crowd() as leaving:
                await leaving.add(tokens.get_token, 20)
                leaving.cancel()
            await staying.add(tokens.get_token)
            source.open()
        return staying.outcomes

    assert len(run(library, main)) == 3


def test_a_task_that_is_cancelled_when_its_token_is_on_the_way_leaves_the_others_alone() -> None:
    source = Source()
    tokens = AsyncTokens(source)

    async def main() -> list[Any]:
        await leave_waiting(tokens, source)
        (thread,) = waiter_threads()
        tasks = [asyncio.create_task(tokens.get_token()) for _ in range(3)]
        await asyncio.sleep(0)
        source.open()
        # The loop is blocked, so that what the thread has posted has not arrived yet.
        join(thread)
        tasks[0].cancel()
        return await asyncio.gather(*tasks, return_exceptions=True)

    first, *others = run("asyncio", main)
    assert isinstance(first, asyncio.CancelledError)
    assert others == ["token 2"] * 2


def test_rounds_of_time_outs_leave_one_thread_which_later_tasks_join(library: str) -> None:
    source = Source()
    tokens = AsyncTokens(source)

    async def main() -> None:
        await leave_waiting(tokens, source)
        for _ in range(300):
            with anyio.move_on_after(0) as patience:
                await tokens.get_token()
            assert patience.cancelled_caught
        async with Crowd() as crowd:
            for _ in range(20):
                async with Crowd() as leaving:
                    await leaving.add(tokens.get_token, 20)
                    leaving.cancel()
            assert len(waiter_threads()) == 1
            assert len(source.calls) == 1
            await crowd.add(tokens.get_token)
            assert len(waiter_threads()) == 1
            source.let_go(2)
            assert await crowd.outcomes_of_all() == ["token 2"]

    run(library, main)
    until(lambda: not waiter_threads(), "the end of the thread")


def test_a_call_that_nobody_waits_for_any_more_is_not_made(library: str) -> None:
    source = Source()
    tokens = AsyncTokens(source)

    async def main() -> None:
        async with Crowd() as crowd:
            await crowd.add(tokens.get_token)
            await eventually(lambda: source.calls, "the first call")
            with anyio.move_on_after(0):
                await tokens.get_token()
            source.open()
            await crowd.outcomes_of_all()

    run(library, main)
    until(lambda: not waiter_threads(), "the end of the thread")
    assert len(source.calls) == 1


def test_loops_of_both_libraries_share_the_thread() -> None:
    source = Source()
    tokens = AsyncTokens(source)
    begun = []

    async def main() -> list[Any]:
        async with Crowd() as crowd:
            await crowd.add(tokens.get_token, 25)
            begun.append(True)
        return crowd.outcomes

    loops = [Worker(run, library, main) for library in LIBRARIES * 4]
    until(lambda: len(begun) == len(loops), "the beginning of all tasks")
    assert len(waiter_threads()) == 1
    source.open()
    assert [len(loop.result()) for loop in loops] == [25] * len(loops)


def abandoned_loop(call: Callable[[], Awaitable[Any]]) -> asyncio.AbstractEventLoop:
    """A loop that was closed while one of its tasks waited."""

    async def forget(task: list[asyncio.Task[Any]]) -> None:
        task.append(asyncio.ensure_future(call()))
        await asyncio.sleep(0)
        # Otherwise the log would have an error about it.
        task[0]._log_destroy_pending = False  # type: ignore[attr-defined]

    loop = asyncio.new_event_loop()
    kept: list[asyncio.Task[Any]] = []
    loop.run_until_complete(forget(kept))
    loop.close()
    loop.kept = kept  # type: ignore[attr-defined]
    return loop


def test_a_loop_that_was_closed_takes_nobody_along(library: str) -> None:
    source = Source()
    tokens = AsyncTokens(source)
    # All others then wait for the same call.
    run("asyncio", lambda: leave_waiting(tokens, source))
    closed = abandoned_loop(tokens.get_token)

    async def main() -> list[Any]:
        async with Crowd() as crowd:
            await crowd.add(tokens.get_token, 3)
            source.open()
        return crowd.outcomes

    assert run(library, main) == ["token 2"] * 3
    assert closed.is_closed()


def test_trio_on_top_of_asyncio_is_trio() -> None:
    trio = pytest.importorskip("trio")
    source = Source("the token")
    tokens = AsyncTokens(source)

    async def host() -> Any:
        ended = asyncio.get_running_loop().create_future()
        loop = asyncio.get_running_loop()
        trio.lowlevel.start_guest_run(
            tokens.get_token,
            run_sync_soon_threadsafe=loop.call_soon_threadsafe,
            done_callback=ended.set_result,
        )
        await eventually(lambda: source.calls, "the call")
        source.let_go()
        return (await ended).unwrap()

    assert run("asyncio", host) == "the token"


def driven_by_hand(coroutine: Coroutine[Any, Any, Any]) -> Any:
    """Its result without waiting; waiting fails."""
    returned = []

    def drive() -> Generator[Any]:
        returned.append((yield from coroutine.__await__()))

    for _ in drive():
        raise AssertionError("it waits")
    return returned[0]


def test_a_token_that_is_there_needs_no_loop_and_no_thread(make_manager: Any) -> None:
    manager = make_manager()
    before = native_threads()
    assert driven_by_hand(AsyncTokens(manager).get_token()) == manager.get_token()
    assert native_threads() == before


def test_without_a_loop_nobody_can_wait() -> None:
    with pytest.raises(RuntimeError, match="no running event loop"):
        AsyncTokens(Source()).get_token().send(None)
    assert not waiter_threads()


def test_a_thread_that_cannot_be_started_is_told_and_the_next_one_may(
    library: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    source = Source("the token")
    source.open()
    tokens = AsyncTokens(source)

    def refuse(thread: Any) -> None:
        raise RuntimeError("can't start new thread")

    async def main() -> Any:
        with monkeypatch.context() as patch:
            patch.setattr("tessaline._waiter.threading.Thread.start", refuse)
            with pytest.raises(RuntimeError, match="can't start new thread"):
                await tokens.get_token()
        return await tokens.get_token()

    assert run(library, main) == "the token"


def test_what_has_no_tokens_is_refused_at_once() -> None:
    given: Any = object()
    with pytest.raises(TypeError, match="object has none"):
        AsyncTokens(given)


def test_what_waits_is_not_kept_alive() -> None:
    source = Source()
    source.open()
    tokens, untouched = AsyncTokens(source), AsyncTokens(source)
    run("asyncio", tokens.get_token)
    until(lambda: not waiter_threads(), "the end of the thread")
    assert sys.getrefcount(tokens) == sys.getrefcount(untouched)

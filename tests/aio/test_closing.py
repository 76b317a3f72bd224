"""aclose(): waiting tasks are woken, and the source is not changed."""

from __future__ import annotations

from typing import Any

import anyio
import pytest

from tessaline.aio import AsyncTokens
from tessaline.auth import AuthError
from tests.shared.threads import until

from .support import Crowd, RefusableSource, Source, eventually, run, waiter_threads


def test_closing_wakes_every_task_while_the_source_goes_on(library: str) -> None:
    source = RefusableSource()
    tokens = AsyncTokens(source)

    async def main() -> list[Any]:
        async with Crowd() as crowd:
            await crowd.add(tokens.get_token, 5)
            await eventually(lambda: source.calls, "the call")
            await crowd.add(tokens.get_token, 5)
            await crowd.add(lambda: tokens.report_refused("refused"), 5)
            await tokens.aclose()
        return crowd.outcomes

    outcomes = run(library, main)
    assert [error.reason for error in outcomes] == ["manager_closed"] * 15
    assert all("AsyncTokens was closed" in error.__notes__[0] for error in outcomes)
    assert len(source.calls) == 1
    source.open()
    until(lambda: not waiter_threads(), "the end of the thread")
    assert len(source.calls) == 1


def test_a_closed_one_serves_nothing_and_its_source_goes_on(library: str, make_manager: Any) -> None:
    manager = make_manager()

    async def main() -> None:
        async with AsyncTokens(manager) as tokens:
            assert await tokens.get_token() == manager.get_token()
        for _ in range(2):
            with pytest.raises(AuthError) as caught:
                await tokens.get_token()
            assert caught.value.reason == "manager_closed"
            await tokens.aclose()

    run(library, main)
    assert manager.get_token()
    assert not waiter_threads()


def test_leaving_by_an_error_closes_too(library: str) -> None:
    tokens = AsyncTokens(Source())

    async def main() -> None:
        with pytest.raises(ValueError, match="of the block"):
            async with tokens:
                raise ValueError("of the block")
        with pytest.raises(AuthError):
            await tokens.get_token()

    run(library, main)


def test_a_source_that_is_closed_wakes_those_who_wait(library: str, make_manager: Any, service: Any) -> None:
    manager = make_manager()
    tokens = AsyncTokens(manager)
    service.away = True

    async def main() -> list[Any]:
        async with Crowd() as crowd:
            manager.notify_era_change(2)
            await crowd.add(tokens.get_token, 10)
            await anyio.to_thread.run_sync(manager.close)
        return crowd.outcomes

    assert {error.reason for error in run(library, main)} == {"manager_closed"}

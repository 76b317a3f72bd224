"""report_refused(): passed on by the one thread, once for all tasks that report the same token."""

from __future__ import annotations

from typing import Any

import pytest

from tessaline.aio import AsyncTokens
from tessaline.auth import AuthManager, NetworkError
from tessaline.keeper import Keeper
from tessaline.testing import KEY, URL, FakeService

from .support import Crowd, RefusableSource, Source, eventually, run, waiter_threads


def test_a_source_that_takes_no_reports_has_no_other_token(library: str) -> None:
    source = Source()
    assert run(library, lambda: AsyncTokens(source).report_refused("refused")) is False
    assert source.calls == []


@pytest.mark.parametrize(("answer", "told"), [(True, True), (False, False), (1, True), (None, False)])
def test_the_answer_is_that_of_the_source(library: str, answer: Any, told: bool) -> None:
    source = RefusableSource(answer)
    source.open()
    assert run(library, lambda: AsyncTokens(source).report_refused("refused")) is told
    assert source.calls == [("report_refused", "refused")]


def test_an_error_is_that_of_the_source(library: str) -> None:
    source = RefusableSource(NetworkError("away"))
    source.open()
    with pytest.raises(NetworkError, match="away"):
        run(library, lambda: AsyncTokens(source).report_refused("refused"))


def test_reports_of_one_token_share_a_call_and_wait_on_one_thread(library: str) -> None:
    source = RefusableSource("the token", True, False)
    tokens = AsyncTokens(source)

    async def main() -> list[Any]:
        async with Crowd() as asking, Crowd() as ones, Crowd() as others:
            await asking.add(tokens.get_token)
            await eventually(lambda: source.calls, "the first call")
            await ones.add(lambda: tokens.report_refused("one"), 50)
            await others.add(lambda: tokens.report_refused("another"), 50)
            assert len(waiter_threads()) == 1
            source.let_go(3)
        return [crowd.outcomes for crowd in (asking, ones, others)]

    assert run(library, main) == [["the token"], [True] * 50, [False] * 50]
    assert source.calls == [("get_token", None), ("report_refused", "one"), ("report_refused", "another")]


def test_a_keeper_logs_in_again_once_for_all(library: str) -> None:
    service = FakeService()
    with Keeper(AuthManager(KEY, URL, _transport=service)) as keeper:
        keeper.start()
        tokens = AsyncTokens(keeper)
        refused = keeper.get_token()

        async def main() -> list[Any]:
            async with Crowd() as crowd:
                await crowd.add(lambda: tokens.report_refused(refused), 50)
            return crowd.outcomes

        assert run(library, main) == [True] * 50
        assert service.logins == 2
        assert run(library, tokens.get_token) == keeper.get_token() != refused

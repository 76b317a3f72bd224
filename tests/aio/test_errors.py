"""Errors of the source: every waiting task gets one, each its own copy."""

from __future__ import annotations

import traceback
from typing import Any

import pytest

from tessaline.aio import AsyncTokens
from tessaline.auth import AuthError, AuthManager
from tessaline.testing import KEY, URL
from tests.shared.threads import until

from .support import Crowd, Source, eventually, leave_waiting, run, waiter_threads


def refusal() -> AuthError:
    error = AuthError("unauthorized")
    error.add_note("Ask the server's people.")
    error.__cause__ = ValueError("the cause")
    return error


class Odd(Exception):
    """An error that `copy` cannot copy."""

    def __init__(self, *, why: str) -> None:
        super().__init__(why)


def outcomes_of(library: str, tokens: AsyncTokens, source: Source, count: int = 50) -> list[Any]:
    async def main() -> list[Any]:
        async with Crowd() as crowd:
            await crowd.add(tokens.get_token, count)
            source.let_go()
        return crowd.outcomes

    return run(library, main)


def test_all_tasks_get_the_error_and_one_call_is_made(library: str) -> None:
    source = Source(refusal())
    outcomes = outcomes_of(library, AsyncTokens(source), source)
    assert [(type(error), error.reason) for error in outcomes] == [(AuthError, "unauthorized")] * 50
    assert all(error.__notes__ == ["Ask the server's people."] for error in outcomes)
    assert all(str(error.__cause__) == "the cause" for error in outcomes)
    assert len(source.calls) == 1


def test_each_task_has_an_error_of_its_own(library: str) -> None:
    source = Source(refusal())
    outcomes = outcomes_of(library, AsyncTokens(source), source)
    assert len({id(error) for error in outcomes}) == 50
    outcomes[0].add_note("Mine.")
    assert all("Mine." not in error.__notes__ for error in outcomes[1:])
    assert len({len(traceback.extract_tb(error.__traceback__)) for error in outcomes}) == 1


def test_one_task_alone_gets_the_very_object(library: str) -> None:
    error = refusal()
    source = Source(error)
    (outcome,) = outcomes_of(library, AsyncTokens(source), source, 1)
    assert outcome is error


@pytest.mark.parametrize(
    "error", [OSError(24, "Too many open files"), UnicodeDecodeError("utf-8", b"\xff", 0, 1, "why")]
)
def test_errors_of_other_types_come_out_whole(library: str, error: Exception) -> None:
    source = Source(error)
    outcomes = outcomes_of(library, AsyncTokens(source), source, 3)
    assert [(type(one), one.args, str(one)) for one in outcomes] == [
        (type(error), error.args, str(error))
    ] * 3


def test_an_error_that_cannot_be_copied_gathers_no_tracebacks(library: str) -> None:
    error = Odd(why="it is odd")
    source = Source(error)
    outcomes = outcomes_of(library, AsyncTokens(source), source)
    assert all(outcome is error for outcome in outcomes)
    names = [frame.name for frame in traceback.extract_tb(error.__traceback__)]
    assert names.count("redeem") == 1
    assert names[-1] == "_answer"


def test_the_traceback_shows_source_and_task_and_nothing_between(library: str) -> None:
    source = Source(refusal())
    for error in outcomes_of(library, AsyncTokens(source), source, 2):
        frames = traceback.extract_tb(error.__traceback__)
        assert frames[0].name == "_one"
        assert [frame.name for frame in frames[-2:]] == ["get_token", "_answer"]
        between = [frame.name for frame in frames if frame.filename.endswith("_waiter.py")]
        assert between == ["outcome_of", "redeem"]


def test_the_next_call_is_a_new_one(library: str) -> None:
    source = Source(refusal(), "the token")
    source.open()
    tokens = AsyncTokens(source)

    async def main() -> Any:
        with pytest.raises(AuthError):
            await tokens.get_token()
        return await tokens.get_token()

    assert run(library, main) == "the token"


def test_an_error_of_an_earlier_call_spares_a_task_another_wait(library: str) -> None:
    source = Source(refusal())
    tokens = AsyncTokens(source)

    async def main() -> list[Any]:
        async with Crowd() as crowd:
            await crowd.add(tokens.get_token)
            await eventually(lambda: source.calls, "the call")
            await crowd.add(tokens.get_token, 5)
            source.let_go()
        return crowd.outcomes

    assert [error.reason for error in run(library, main)] == ["unauthorized"] * 6


def test_a_manager_that_has_not_logged_in_says_so(library: str, service: Any) -> None:
    with AuthManager(KEY, URL, _transport=service) as manager, pytest.raises(AuthError) as caught:
        run(library, AsyncTokens(manager).get_token)
    assert caught.value.reason == "not_authenticated"
    assert caught.value.__notes__


@pytest.mark.parametrize("end", [KeyboardInterrupt, SystemExit])
def test_what_is_to_end_the_program_ends_the_loop(end: type[BaseException]) -> None:
    source = Source(end("now"), "the token")
    source.open()
    tokens = AsyncTokens(source)
    with pytest.raises(end, match="now"):
        run("asyncio", tokens.get_token)
    assert run("asyncio", tokens.get_token) == "the token"


def test_it_is_not_lost_where_nobody_waits_any_more(library: str, escaped: list[Any]) -> None:
    source = Source(KeyboardInterrupt("now"), "the token")
    tokens = AsyncTokens(source)

    async def main() -> Any:
        await leave_waiting(tokens, source)
        (thread,) = waiter_threads()
        source.let_go()
        await eventually(lambda: not thread.is_alive(), "the end of the thread")
        source.open()
        return await tokens.get_token()

    assert run(library, main) == "the token"
    assert [str(error) for error in escaped] == ["now"]
    escaped.clear()


def test_an_error_that_nobody_waits_for_is_dropped(library: str) -> None:
    source = Source(refusal())
    tokens = AsyncTokens(source)

    run(library, lambda: leave_waiting(tokens, source))
    source.open()
    until(lambda: not waiter_threads(), "the end of the thread")
    assert run(library, tokens.get_token) == "token 2"

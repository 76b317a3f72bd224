"""Tokens for asyncio and trio: at once while they are there, else by one thread that waits for all tasks.

    async with AsyncTokens(keeper) as tokens:  # or keeper[address], an AuthManager, whatever has get_token()
        token = await tokens.get_token()

Importing it opens nothing and starts nothing. trio is used where it runs, and never imported otherwise.
"""

from __future__ import annotations

from collections.abc import Callable
from functools import partial
from types import TracebackType
from typing import Self, cast

from tessaline._ready import TokenSource, glance_for, of_one_wallet
from tessaline._waiter import Waiter
from tessaline.auth import AuthError

__all__ = ["AsyncTokens"]


class AsyncTokens:
    """The tokens of a source, for any number of tasks.

    A token that is there is returned without giving way to another task. Where the source has to wait, one
    daemon thread ("tessaline-waiter") waits for all tasks; it ends when nobody waits any more and the source
    has answered. No pool of threads is used.

    Args:
        source: A `Keeper` of one wallet, a wallet of a keeper, an `AuthManager`, or anything with
            `get_token()`. It stays the caller's: nothing here closes it.

    Raises:
        TypeError: The source has no `get_token()`.

    Tasks of asyncio and of trio, of any number of event loops and threads, may share it, also in a forked
    child.
    """

    def __init__(self, source: TokenSource) -> None:
        if not callable(getattr(source, "get_token", None)):
            raise TypeError(f"the source must have get_token(), and {type(source).__name__} has none")
        self._source = source
        self._glance = glance_for(of_one_wallet(source))
        self._closed = False
        self._waiter = Waiter()

    async def get_token(self) -> str:
        """Return what the source's `get_token()` returns, waiting for as long as that does.

        Cheap while the token is there: ask before every request instead of keeping it. A task that is
        cancelled stops waiting at once, and leaves the others alone.

        Returns:
            The token. Where it had to be waited for, the source was asked after this call.

        Raises:
            AuthError: "manager_closed" after `aclose()`, or woken by it; and what the source raises.
            RuntimeError: It must wait where no event loop runs, or no thread could be started.
            NetworkError, OSError and others: What the source raises. Tasks that wait at once each get the
                error with a traceback of their own.
        """
        if not self._closed:
            token = self._glance(self._source)
            if token is not None:
                return token
        return cast(str, await self._waiter.outcome_of(None, self._source.get_token))

    async def report_refused(self, token: str) -> bool:
        """Tell the source that a server answered 401 to this token.

        Waits for as long as the source's `report_refused()` takes, with a keeper 10 seconds at most, and for
        what the thread has to do before. Tasks that report the same token share a call.

        Args:
            token: What was sent with the request that was refused.

        Returns:
            Whether another token is to be had, so that the request may be repeated once. False where the
            source has no `report_refused()`.

        Raises:
            AuthError: "manager_closed" after `aclose()`, or woken by it; and what the source raises.
            RuntimeError: No event loop runs, or no thread could be started.
        """
        report: Callable[[str], object] | None = getattr(self._source, "report_refused", None)
        if report is None:
            return False
        return bool(await self._waiter.outcome_of(token, partial(report, token)))

    async def aclose(self) -> None:
        """Wake every waiting task with AuthError "manager_closed", which each further call raises too.

        Waits for nothing: the thread ends once the source has answered. The source is not closed. May be
        called again, and from any task.
        """
        self._closed = True
        self._waiter.close(_closed_error)

    async def __aenter__(self) -> Self:
        """Return itself; leaving the block closes it, also by an exception."""
        return self

    async def __aexit__(
        self,
        exc_type: type[BaseException] | None,
        exc_value: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        """Close it. What was raised in the block goes on."""
        await self.aclose()


def _closed_error() -> AuthError:
    error = AuthError("manager_closed")
    error.add_note("This AsyncTokens was closed, its source was not. Make another one if need be.")
    return error

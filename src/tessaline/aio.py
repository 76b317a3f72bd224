"""Tokens for asyncio and trio, without blocking the event loop: one background thread waits for all tasks.

    async with AsyncTokens(keeper) as tokens:
        token = await tokens.get_token()

Importing it opens nothing and starts nothing. trio is used if it runs, and is never imported otherwise.
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

    If a valid token is available, it is returned without a switch to another task. Otherwise one daemon
    thread ("tessaline-waiter") waits for all tasks; it ends when no task waits and the source has returned.
    No thread pool is used.

    Args:
        source: A `Keeper` of one wallet, a wallet of a keeper, an `AuthManager`, or any object with
            `get_token()`. `aclose()` does not close it.

    Raises:
        TypeError: The source has no `get_token()`.

    Tasks of asyncio and trio, of any number of event loops and threads, may share it, also in a forked
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
        """Return the source's token, waiting as long as the source's `get_token()` waits.

        Cheap while a token is valid: call it before every request instead of storing the token. A cancelled
        task stops waiting at once, and does not affect the others.

        Returns:
            The token. After a wait, it comes from a call to the source that began after this one.

        Raises:
            AuthError: "manager_closed" after `aclose()`, which also ends waits; and the errors of the source.
            RuntimeError: It has to wait without a running event loop, or no thread could be started.
            NetworkError, OSError and others: The errors of the source. Each waiting task gets its own copy,
                with its own traceback.
        """
        if not self._closed:
            token = self._glance(self._source)
            if token is not None:
                return token
        return cast(str, await self._waiter.outcome_of(None, self._source.get_token))

    async def report_refused(self, token: str) -> bool:
        """Report to the source that a server answered 401 to this token.

        Waits as long as the source's `report_refused()`, with a keeper 10 seconds at most, plus earlier
        work of the thread. Tasks that report the same token share a call.

        Args:
            token: The token that was sent with the refused request.

        Returns:
            Whether a new token is available, so that the request may be repeated once. False if the
            source has no `report_refused()`.

        Raises:
            AuthError: "manager_closed" after `aclose()`, which also ends waits; and the errors of the source.
            RuntimeError: No event loop runs, or no thread could be started.
        """
        report: Callable[[str], object] | None = getattr(self._source, "report_refused", None)
        if report is None:
            return False
        return bool(await self._waiter.outcome_of(token, partial(report, token)))

    async def aclose(self) -> None:
        """Wake every waiting task with AuthError "manager_closed", which each later call raises too.

        Waits for nothing: the thread ends after the source has returned. The source is not closed. May be
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
        """Close it. An exception in the block propagates."""
        await self.aclose()


def _closed_error() -> AuthError:
    error = AuthError("manager_closed")
    error.add_note("This AsyncTokens was closed, but its source was not. Create another one if you need it.")
    return error

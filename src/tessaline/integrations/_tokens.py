"""Sources of tokens, the header with a token, and the handling of a response with status 401."""

from __future__ import annotations

import re
from typing import TYPE_CHECKING, Protocol, runtime_checkable

from tessaline._ready import TokenSource

if TYPE_CHECKING:
    from tessaline.aio import AsyncTokens

_FIT = re.compile(r"[!-~]+")


class _Hidden(str):
    """A header's value that no repr shows: errors of clients include their headers in theirs."""

    __slots__ = ()

    def __repr__(self) -> str:
        return "'Bearer …'"


def bearer(token: str) -> str:
    """The value of the header `Authorization` for a token, which its repr hides.

    Raises:
        ValueError: The token has spaces, control characters or non-ASCII characters, or is empty. The
            message does not show it.
    """
    if _FIT.fullmatch(token) is None:
        raise ValueError("the source gave a token that no header can carry") from None
    return _Hidden(f"Bearer {token}")


class Header:
    """Caches the result of `bearer()` while the token stays the same. Thread-safe."""

    __slots__ = ("_latest",)

    def __init__(self) -> None:
        self._latest = ("", "")

    def of(self, token: str) -> str:
        """The header's value. Raises what `bearer()` does."""
        known, header = self._latest
        if token != known or not token:
            header = bearer(token)
            self._latest = (token, header)
        return header


@runtime_checkable
class RefusalListener(Protocol):
    """A source to which refused tokens are reported."""

    def report_refused(self, token: str, /) -> bool:
        """Return whether there is a new token, once that is known."""
        ...


def other_token(source: TokenSource, refused: str) -> str | None:
    """Report to the source that a server has refused a token, and get another.

    Args:
        source: The source of the token. If it has no `report_refused()`, nothing is reported.
        refused: The token to which the server has responded with status 401.

    Returns:
        Another token than the refused one, or None if the source has no other.

    Raises:
        Whatever the source does.
    """
    if isinstance(source, RefusalListener):
        source.report_refused(refused)
    held = source.get_token()
    return None if held == refused else held


async def other_token_of(tokens: AsyncTokens, refused: str) -> str | None:
    """The same in an event loop, without blocking it."""
    await tokens.report_refused(refused)
    held = await tokens.get_token()
    return None if held == refused else held


__all__ = ["Header", "TokenSource", "bearer", "other_token", "other_token_of"]

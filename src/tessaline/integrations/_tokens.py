"""Where tokens come from, how they go into a header, and what an answer of 401 leads to."""

from __future__ import annotations

import re
from typing import TYPE_CHECKING, Protocol, runtime_checkable

from tessaline._ready import TokenSource

if TYPE_CHECKING:
    from tessaline.aio import AsyncTokens

_FIT = re.compile(r"[!-~]+")


class _Hidden(str):
    """A header's value that reprs do not show: clients put their headers into those of their errors."""

    __slots__ = ()

    def __repr__(self) -> str:
        return "'Bearer …'"


def bearer(token: str) -> str:
    """The value of the header `Authorization` for a token, which its repr hides.

    Raises:
        ValueError: The token has blanks, control characters or characters outside ASCII, or is empty. The
            message does not quote it.
    """
    if _FIT.fullmatch(token) is None:
        raise ValueError("the source gave a token that no header can carry") from None
    return _Hidden(f"Bearer {token}")


class Header:
    """What `bearer()` gives, and gives again while the token stays the same. For any thread."""

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
    """A source that wants to know of tokens which a server has refused."""

    def report_refused(self, token: str, /) -> bool:
        """Take notice, and return once it is settled whether another token comes of it."""
        ...


def other_token(source: TokenSource, refused: str) -> str | None:
    """Tell the source that a server has refused a token, and ask for another.

    Args:
        source: Where the token came from. Without a `report_refused()` it is only asked.
        refused: The token that was answered with 401.

    Returns:
        Another token than the refused one, None where the source has no other.

    Raises:
        Whatever the source does.
    """
    if isinstance(source, RefusalListener):
        source.report_refused(refused)
    held = source.get_token()
    return None if held == refused else held


async def other_token_of(tokens: AsyncTokens, refused: str) -> str | None:
    """The same in an event loop, which does not stand still meanwhile."""
    await tokens.report_refused(refused)
    held = await tokens.get_token()
    return None if held == refused else held


__all__ = ["Header", "TokenSource", "bearer", "other_token", "other_token_of"]

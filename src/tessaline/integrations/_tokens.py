"""Where tokens come from, and what an answer of 401 leads to."""

from __future__ import annotations

from typing import TYPE_CHECKING, Protocol, runtime_checkable

from tessaline._ready import TokenSource

if TYPE_CHECKING:
    from tessaline.aio import AsyncTokens


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


__all__ = ["TokenSource", "other_token", "other_token_of"]

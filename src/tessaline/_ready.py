"""The token of a source if available at once, for callers that must not block, such as event loops."""

from __future__ import annotations

from collections.abc import Callable
from types import BuiltinMethodType
from typing import Any, Protocol

from tessaline._native import Serving
from tessaline.auth import AuthManager

_get_token = AuthManager.get_token
_get_time = AuthManager._get_time
_era_guard = AuthManager._raise_if_pending_era_locked
# If a program replaces one of these, only calling `get_token()` shows what it does.
_STEPS = ("get_token", "_get_time", "_raise_if_pending_era_locked")


class TokenSource(Protocol):
    """A keeper, a wallet of a keeper, an `AuthManager`, or another object with `get_token()`."""

    def get_token(self) -> str: ...


def of_one_wallet[Source: TokenSource](source: Source) -> Source:
    """Return the source, unless it is a keeper of several wallets, which has no token of its own.

    Raises:
        ValueError: It is such a keeper.
    """
    if isinstance(source, Serving) and source._copy is None:
        raise ValueError("this keeper has several wallets: pass keeper[address]")
    return source


def ready_token(source: TokenSource) -> str | None:
    """The token, if `source.get_token()` would return it at once.

    Takes no lock and never blocks, unless the clock does. May be called from any thread, and in a forked
    child, where it restarts a manager as any of its methods does.

    Args:
        source: An object with `get_token()`.

    Returns:
        The token; None if `get_token()` may block or raise, or if that is unknown: for other sources
        than managers, keepers and their wallets, and for one whose methods a program has replaced.
    """
    return glance_for(source)(source)


def glance_for(source: TokenSource) -> Callable[[Any], str | None]:
    """The implementation of `ready_token()` for this source, for frequent callers."""
    if isinstance(source, Serving):
        return _of_keeper
    if isinstance(source, AuthManager):
        return _of_manager
    return _of_other


def _of_other(source: object) -> None:
    return None


def _of_keeper(keeper: Serving) -> str | None:
    copy = keeper._copy
    # Neither a subclass nor the program has replaced it.
    if copy is None or type(keeper.get_token) is not BuiltinMethodType:
        return None
    try:
        return copy.get()
    except Exception:
        return None


def _of_manager(manager: AuthManager) -> str | None:
    kind, own = type(manager), manager.__dict__
    # The methods that determine the result of the manager's `get_token()`.
    if (
        kind.get_token is not _get_token
        or kind._get_time is not _get_time
        or kind._raise_if_pending_era_locked is not _era_guard
        or (own and not own.keys().isdisjoint(_STEPS))
    ):
        return None
    token, refresh_at, expiry = manager._token, manager._refresh_at, manager._token_expiry
    if token is None or refresh_at is None or expiry is None:
        return None
    # Without the lock, which a signal handler on this thread might need. A login that ends meanwhile changes
    # the token, and close() sets the state before it clears the pending era. The time is read first: in a
    # forked child, that re-creates the manager's fields.
    try:
        if (
            _get_time(manager) < min(refresh_at, expiry)
            and manager._permanent_refresh_error is False
            and manager._pending_era_number is None
            and manager._state == "AUTHENTICATED"
            and not manager._lock.locked()
            and manager._token is token
        ):
            return token
    except Exception:
        # A clock that raises, or returns no number.
        return None
    return None

"""Whether a source would give its token at once: asked by those that must not wait, such as event loops."""

from __future__ import annotations

from collections.abc import Callable
from types import BuiltinMethodType
from typing import Any, Protocol

from tessaline._native import Serving
from tessaline.auth import AuthManager

_get_token = AuthManager.get_token
_get_time = AuthManager._get_time
_era_guard = AuthManager._raise_if_pending_era_locked
# What a program may replace, so that only `get_token()` itself knows what it would do.
_STEPS = ("get_token", "_get_time", "_raise_if_pending_era_locked")


class TokenSource(Protocol):
    """What hands out tokens: a keeper, a wallet of a keeper, an `AuthManager`, or the like."""

    def get_token(self) -> str: ...


def of_one_wallet[Source: TokenSource](source: Source) -> Source:
    """The source, unless it is a keeper of several wallets, which has no token of its own.

    Raises:
        ValueError: It is one.
    """
    if isinstance(source, Serving) and source._copy is None:
        raise ValueError("this keeper has several wallets: give keeper[address]")
    return source


def ready_token(source: TokenSource) -> str | None:
    """The token that `source.get_token()` would give at once.

    Takes no lock and never waits, but for a clock that does. May be called from any thread, and in a forked
    child, where it makes a manager go on as any of its methods does.

    Args:
        source: Whatever has `get_token()`.

    Returns:
        The token; None where `get_token()` may wait or raise, or where that is not known: of other sources
        than managers, keepers and their wallets, and of one whose methods a program has replaced.
    """
    return glance_for(source)(source)


def glance_for(source: TokenSource) -> Callable[[Any], str | None]:
    """What `ready_token()` does for this source, for who asks often."""
    if isinstance(source, Serving):
        return _of_keeper
    if isinstance(source, AuthManager):
        return _of_manager
    return _of_other


def _of_other(source: object) -> None:
    return None


def _of_keeper(keeper: Serving) -> str | None:
    copy = keeper._copy
    # Neither the class nor the program has put another one in its place.
    if copy is None or type(keeper.get_token) is not BuiltinMethodType:
        return None
    try:
        return copy.get()
    except Exception:
        return None


def _of_manager(manager: AuthManager) -> str | None:
    kind, own = type(manager), manager.__dict__
    # As in the manager itself, where these are what decides.
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
    # Without the lock, which a signal handler might need that interrupts whoever holds it here. A login that
    # ends meanwhile is told by its token, and close() sets the state before it forgets what was announced.
    # The time comes first: in a forked child, asking for it makes the manager's fields those of the child.
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
        # A clock that raises, or tells no number.
        return None
    return None

"""What a keeper uses of a manager beyond its public methods, all of it.

Token and expiry are wanted as they belong together, without the waits of `get_token()`. The renewal is the
keeper's: the managers of a fleet would otherwise all log in by themselves, on a thread each, whenever a
clock jumps or a machine wakes up.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import NamedTuple

from tessaline import auth
from tessaline.auth import AuthError, AuthManager
from tessaline.errors import ERA_MISMATCH, NOT_AUTHENTICATED

from .patience import Patience


class Credentials(NamedTuple):
    """What a login has brought."""

    token: str
    expiry: float
    era: int


def take_over(manager: AuthManager) -> Patience:
    """Leave the manager no renewal of its own, and put the keeper's transport around its transport."""
    vars(manager)["_start_refresh"] = _renewed_by_the_keeper
    manager._refresh_stop.set()
    manager._refresh_event.set()
    patience = Patience(manager._transport, clock_of(manager))
    manager._transport = patience
    return patience


def _renewed_by_the_keeper() -> None:
    pass


def clock_of(manager: AuthManager) -> Callable[[], float]:
    return manager._clock


def has_wall_clock(manager: AuthManager) -> bool:
    return not manager._uses_injected_clock


def server_of(manager: AuthManager) -> str:
    return manager._server_url


def credentials_of(manager: AuthManager) -> Credentials | None:
    """What the manager holds, good or not; None for nothing. Waits for nothing but its lock."""
    # In a forked child the lock may be one that nobody will release, until a public method has been called.
    manager.get_wallet_address()
    with manager._lock:
        token, expiry = manager._token, manager._token_expiry
    if token is None or expiry is None:
        return None
    return Credentials(token, expiry, _era_of(token))


def _era_of(token: str) -> int:
    try:
        return auth._jwt_era_number(token) or 0
    except AuthError:
        return 0


def log_in(manager: AuthManager, era: int) -> Credentials:
    """Log in and return what it brought.

    Args:
        manager: One that `take_over` has had.
        era: The lowest that will do; 0 for any.

    Raises:
        AuthError: "era_mismatch" for a token of an older era, "manager_closed"; and as `authenticate()` does.
    """
    if _tell(manager, era):
        manager.get_token()
    else:
        manager.authenticate()
    held = credentials_of(manager)
    if held is None:
        raise AuthError(reason=NOT_AUTHENTICATED)
    if held.era < era:
        raise AuthError(reason=ERA_MISMATCH)
    return held


def _tell(manager: AuthManager, era: int) -> bool:
    """Announce the era to a manager that does not know of it; return whether that makes it log in."""
    known = manager._pending_era_number
    if era <= (known or 0):
        # A login has failed to bring it. Another one tells by its error what the matter is.
        return False
    held = credentials_of(manager)
    if held is not None and held.era >= era:
        return False
    try:
        manager.notify_era_change(era)
    except AuthError as error:
        if error.reason != NOT_AUTHENTICATED:
            raise
        return False
    return True

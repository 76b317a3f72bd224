"""What a keeper uses of a manager beyond its public methods, all of it.

Token and expiry are wanted as they belong together, without the waits of `get_token()`. The renewal is the
keeper's: the managers of a fleet would otherwise all log in by themselves, on a thread each, whenever a
clock jumps or a machine wakes up.
"""

# pyright: reportPrivateUsage=false
# What it is here for.

from __future__ import annotations

import time
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Final

from tessaline import auth
from tessaline._native import set_event
from tessaline.auth import AuthError, AuthManager
from tessaline.errors import ERA_MISMATCH, NOT_AUTHENTICATED

from .patience import Patience

# Real seconds; three requests of three attempts, half a minute each, and their pauses.
_LONGEST_LOGIN: Final = 300.0
_LOOK: Final = 0.05


@dataclass(frozen=True, slots=True)
class Credentials:
    """What a login has brought."""

    token: str = field(repr=False)
    expiry: float
    era: int


def take_over(manager: AuthManager) -> Patience:
    """Leave the manager no renewal of its own, and put the keeper's transport around its transport.

    May be interrupted anywhere by what a signal handler raises, and done again.
    """
    vars(manager)["_start_refresh"] = _renewed_by_the_keeper
    set_event(manager._refresh_stop)
    set_event(manager._refresh_event)
    patience = manager._transport
    if not isinstance(patience, Patience):
        patience = Patience(patience, clock_of(manager))
        manager._transport = patience
    return patience


def _renewed_by_the_keeper() -> None:
    pass


def clock_of(manager: AuthManager) -> Callable[[], float]:
    return manager._clock


def has_wall_clock(manager: AuthManager) -> bool:
    return not manager._uses_injected_clock


def token_lifetime() -> float:
    """For how long a manager takes a token to be good, in seconds from its storage."""
    return auth._TOKEN_LIFETIME


def server_of(manager: AuthManager) -> str:
    return manager._server_url


def credentials_of(manager: AuthManager) -> Credentials | None:
    """What the manager holds, good or not; None for nothing. Takes no lock and waits for nothing.

    A signal handler that closes the manager would wait for a lock that is held here. Of a login that is being
    stored meanwhile this gives either all or what was there before: the token is stored first, and one that
    lasts longer than told does no harm.
    """
    expiry = manager._token_expiry
    token = manager._token
    if token is None or expiry is None or manager._token_expiry != expiry:
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
        _await_login(manager)
    else:
        manager.authenticate()
    held = credentials_of(manager)
    if held is None:
        raise AuthError(reason=NOT_AUTHENTICATED)
    if held.era < era:
        raise AuthError(reason=ERA_MISMATCH)
    return held


def _await_login(manager: AuthManager) -> None:
    """Wait for the login that an announcement has begun."""
    try:
        manager.get_token()
        return
    except RuntimeError:
        # Green threads share the thread by which a manager knows who logs in.
        pass
    deadline = time.monotonic() + _LONGEST_LOGIN
    while (event := manager._auth_event) is not None and not event.is_set() and time.monotonic() < deadline:
        time.sleep(_LOOK)
    if manager._auth_error is not None:
        raise manager._auth_error


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

"""Everything that a keeper uses of a manager beyond its public methods.

It reads a token together with its expiry, without the waits of `get_token()`. And it disables the managers'
own renewal: otherwise all managers of a fleet would log in at once, each on its own thread, whenever a
clock jumps or a machine resumes from suspension.
"""

# pyright: reportPrivateUsage=false

from __future__ import annotations

import time
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Final

from tessaline import auth
from tessaline._native import set_event
from tessaline.auth import AuthError, AuthManager
from tessaline.errors import ERA_MISMATCH, NOT_AUTHENTICATED

from .retry_after import RetryAfterTransport

# Real seconds: three requests with three tries each of half a minute, and the back-off between them.
_LONGEST_LOGIN: Final = 300.0
_LOOK: Final = 0.05


@dataclass(frozen=True, slots=True)
class Credentials:
    """The result of a login."""

    token: str = field(repr=False)
    expiry: float
    era: int


def take_over(manager: AuthManager) -> RetryAfterTransport:
    """Disable the manager's own renewal, and wrap its transport in the keeper's.

    Can be repeated after an interruption by a signal handler.
    """
    vars(manager)["_start_refresh"] = _renewed_by_the_keeper
    set_event(manager._refresh_stop)
    set_event(manager._refresh_event)
    transport = manager._transport
    if not isinstance(transport, RetryAfterTransport):
        transport = RetryAfterTransport(transport, clock_of(manager))
        manager._transport = transport
    return transport


def _renewed_by_the_keeper() -> None:
    pass


def clock_of(manager: AuthManager) -> Callable[[], float]:
    return manager._clock


def has_wall_clock(manager: AuthManager) -> bool:
    return not manager._uses_injected_clock


def token_lifetime() -> float:
    """The lifetime of a token in a manager, in seconds from its storage."""
    return auth._TOKEN_LIFETIME


def server_of(manager: AuthManager) -> str:
    return manager._server_url


def credentials_of(manager: AuthManager) -> Credentials | None:
    """The manager's token, valid or not, or None. Takes no lock and never blocks.

    A signal handler that closes the manager would wait for a lock that is held here. If a login is stored
    meanwhile, the result is the old or the new one: the token is stored first, and a token that is valid for
    longer than its expiry says does no harm.
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
    """Log in and return the result.

    Args:
        manager: A manager after `take_over`.
        era: The lowest accepted era; 0 for any.

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
    """Wait for the login that an announcement has started."""
    try:
        manager.get_token()
        return
    except RuntimeError:
        # The manager sees all green threads as the one that logs in.
        pass
    deadline = time.monotonic() + _LONGEST_LOGIN
    while (event := manager._auth_event) is not None and not event.is_set() and time.monotonic() < deadline:
        time.sleep(_LOOK)
    if manager._auth_error is not None:
        raise manager._auth_error


def _tell(manager: AuthManager, era: int) -> bool:
    """Announce the era to a manager that does not know it; return whether that starts a login."""
    known = manager._pending_era_number
    if era <= (known or 0):
        # The login for it has failed. Another one raises the reason.
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

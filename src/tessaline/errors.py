"""The reasons and errors of a login as names: for `except`, for comparing, and for type checkers.

    from tessaline.errors import LOGIN_ERRORS, is_final

    try:
        manager.authenticate()
    except LOGIN_ERRORS as error:
        if is_final(error):
            raise

Importing it opens nothing and starts nothing; all of it may be used from any thread.
"""

from __future__ import annotations

import http.client
import ssl
from typing import Final, Literal, cast, get_args

from tessaline.auth import AuthError, NetworkError, ProfileError, RegistrationError

__all__ = [
    "ERA_CHANGE_PENDING",
    "ERA_MISMATCH",
    "FINAL_REASONS",
    "INVALID_ADDRESS",
    "INVALID_REQUEST",
    "INVITE_ALREADY_REDEEMED",
    "INVITE_INVALID",
    "INVITE_REQUIRED",
    "INVITE_REVOKED",
    "LOGIN_ERRORS",
    "MANAGER_CLOSED",
    "NOT_AUTHENTICATED",
    "PROFILE_UNAUTHORIZED",
    "RATE_LIMITED",
    "SIGNATURE_MISMATCH",
    "TOKEN_EXPIRED",
    "UNAUTHORIZED",
    "UNEXPECTED_AUTH_STATE",
    "VALIDATION_FAILED",
    "WALLET_MISMATCH",
    "WALLET_SECRET_CHANGED",
    "ProfileReason",
    "Reason",
    "RegistrationReason",
    "is_final",
    "reason_of",
]

NOT_AUTHENTICATED: Final = "not_authenticated"
TOKEN_EXPIRED: Final = "token_expired"
MANAGER_CLOSED: Final = "manager_closed"
ERA_CHANGE_PENDING: Final = "era_change_pending"
ERA_MISMATCH: Final = "era_mismatch"
WALLET_MISMATCH: Final = "wallet_mismatch"
WALLET_SECRET_CHANGED: Final = "wallet_secret_changed"
SIGNATURE_MISMATCH: Final = "signature_mismatch"
INVALID_ADDRESS: Final = "invalid_address"
UNAUTHORIZED: Final = "unauthorized"
INVALID_REQUEST: Final = "invalid_request"
PROFILE_UNAUTHORIZED: Final = "profile_unauthorized"
UNEXPECTED_AUTH_STATE: Final = "unexpected_auth_state"

INVITE_REQUIRED: Final = "invite_required"
INVITE_INVALID: Final = "invite_invalid"
INVITE_ALREADY_REDEEMED: Final = "invite_already_redeemed"
INVITE_REVOKED: Final = "invite_revoked"

VALIDATION_FAILED: Final = "validation_failed"
RATE_LIMITED: Final = "rate_limited"

Reason = Literal[
    "not_authenticated",
    "token_expired",
    "manager_closed",
    "era_change_pending",
    "era_mismatch",
    "wallet_mismatch",
    "wallet_secret_changed",
    "signature_mismatch",
    "invalid_address",
    "unauthorized",
    "invalid_request",
    "profile_unauthorized",
    "unexpected_auth_state",
]
"""What `AuthError.reason` may be, where it is not the text of another error."""

RegistrationReason = Literal["invite_required", "invite_invalid", "invite_already_redeemed", "invite_revoked"]
"""What `str(RegistrationError)` may be."""

ProfileReason = Literal["validation_failed", "rate_limited"]
"""What `ProfileError.reason` may be."""

FINAL_REASONS: Final[frozenset[str]] = frozenset(
    {
        MANAGER_CLOSED,
        WALLET_MISMATCH,
        WALLET_SECRET_CHANGED,
        SIGNATURE_MISMATCH,
        INVALID_ADDRESS,
        UNAUTHORIZED,
        INVALID_REQUEST,
        UNEXPECTED_AUTH_STATE,
    }
)
"""The reasons of an `AuthError` that a further attempt would meet again."""

LOGIN_ERRORS: Final = (
    AuthError,
    RegistrationError,
    NetworkError,
    OSError,
    http.client.HTTPException,
    LookupError,
    TypeError,
    ValueError,
)
"""What `authenticate()` may raise on account of the server or of the way to it, for `except`.

`OSError` holds TLS and proxies; the last four are answers that are not those of a login. `MemoryError`, and
`RuntimeError` for a thread that could not be started, tell of this process and are not among them; nor is
`InvalidKeyError`, which the making of a manager raises.
"""

_REASONS: Final = frozenset(get_args(Reason))


def reason_of(error: BaseException) -> Reason | None:
    """The reason of an `AuthError` in a type of which a checker knows every value.

    A checker then complains where it is compared with a text that no reason has, which it cannot do with
    `error.reason`.

    Args:
        error: What `authenticate()`, `get_token()` or a keeper has raised.

    Returns:
        None for every other class, and for an `AuthError` whose reason is the text of another error.
    """
    if isinstance(error, AuthError) and error.reason in _REASONS:
        return cast("Reason", error.reason)
    return None


def is_final(error: BaseException) -> bool:
    """Whether a further attempt would meet the same error, until somebody has changed something.

    Args:
        error: What `authenticate()`, `get_token()` or a keeper has raised.

    Returns:
        False for a transient error: `NetworkError`, an `OSError` of the connection or of a proxy, an
        `AuthError` with another reason than those of `FINAL_REASONS`, a lack of memory or threads, a display
        name that came too soon. True for every other: refusals, TLS, and answers that are not those of such a
        server.
    """
    if isinstance(error, AuthError):
        return error.reason in FINAL_REASONS
    if isinstance(error, ProfileError):
        return error.reason != RATE_LIMITED
    if isinstance(error, ssl.SSLError):
        return True
    return not isinstance(error, NetworkError | OSError | MemoryError | RuntimeError)

"""The reasons and errors of a login as constants: for `except`, for comparisons, and for type checkers.

    from tessaline.errors import LOGIN_ERRORS, is_final

    try:
        manager.authenticate()
    except LOGIN_ERRORS as error:
        if is_final(error):
            raise

Importing it opens nothing and starts nothing. Everything may be used from any thread.
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
"""The values of `AuthError.reason`, apart from the messages of other errors."""

RegistrationReason = Literal["invite_required", "invite_invalid", "invite_already_redeemed", "invite_revoked"]
"""The values of `str(RegistrationError)`."""

ProfileReason = Literal["validation_failed", "rate_limited"]
"""The values of `ProfileError.reason`."""

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
"""The reasons of a permanent `AuthError`."""

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
"""For `except`: the errors of `authenticate()` that come from the server or the network.

`OSError` includes TLS and proxies; the last four are unexpected responses. Not included are `MemoryError` and
`RuntimeError` (a thread could not be started), which come from this process, and `InvalidKeyError`, which
creating a manager raises.
"""

_REASONS: Final = frozenset(get_args(Reason))


def reason_of(error: BaseException) -> Reason | None:
    """The reason of an `AuthError` as a `Literal` type.

    A type checker then reports a comparison with a string that is not a reason, which it cannot do for
    `error.reason`.

    Args:
        error: An error of `authenticate()`, `get_token()` or a keeper.

    Returns:
        None for every other class, and for an `AuthError` whose reason is the message of another error.
    """
    if isinstance(error, AuthError) and error.reason in _REASONS:
        return cast("Reason", error.reason)
    return None


def is_final(error: BaseException) -> bool:
    """Whether an error is permanent: it comes back at every attempt until somebody changes something.

    Args:
        error: An error of `authenticate()`, `get_token()` or a keeper.

    Returns:
        False for a transient error: `NetworkError`, an `OSError` of the connection or of a proxy, an
        `AuthError` whose reason is not in `FINAL_REASONS`, a lack of memory or threads, a rate limit. True
        for every other error: refusals, TLS errors, and unexpected responses.
    """
    if isinstance(error, AuthError):
        return error.reason in FINAL_REASONS
    if isinstance(error, ProfileError):
        return error.reason != RATE_LIMITED
    if isinstance(error, ssl.SSLError):
        return True
    return not isinstance(error, NetworkError | OSError | MemoryError | RuntimeError)

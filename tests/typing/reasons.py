"""What type checkers accept and refuse of `tessaline.errors`: comments mark the latter. Never run."""

# pyright: reportUnnecessaryTypeIgnoreComment=true
# pyright: reportUnnecessaryComparison=true

from __future__ import annotations

import http.client
from typing import assert_type

from tessaline import errors
from tessaline.auth import AuthError, AuthManager, NetworkError, RegistrationError
from tessaline.errors import LOGIN_ERRORS, UNAUTHORIZED, Reason, is_final, reason_of


def compared(error: AuthError) -> bool:
    if reason_of(error) == "unauthorized" or reason_of(error) == UNAUTHORIZED:
        return True
    return reason_of(error) == "unautorized"  # type: ignore[comparison-overlap]


def named() -> Reason:
    reason: Reason = UNAUTHORIZED
    other: Reason = "unautorized"  # type: ignore[assignment]
    print(errors.UNAUTORIZED)  # type: ignore[attr-defined]
    return reason if is_final(AuthError(reason)) else other


def caught(manager: AuthManager) -> bool:
    try:
        manager.authenticate()
    except LOGIN_ERRORS as error:
        assert_type(
            error,
            AuthError
            | RegistrationError
            | NetworkError
            | OSError
            | http.client.HTTPException
            | LookupError
            | TypeError
            | ValueError,
        )
        return is_final(error)
    return False

"""Managers with a known key, and the errors that they may raise."""

from __future__ import annotations

from typing import Any

import canary
from tessaline import auth
from tests.shared.clocks import HandClock

from .service import BASE, Service

KEY = "8f2a55949038a9610f50fb23b5883af3b4ecb3c3bb792cbcefbd1542c692be63"

REASONS = frozenset(
    {
        "manager_closed",
        "not_authenticated",
        "token_expired",
        "era_change_pending",
        "era_mismatch",
        "wallet_mismatch",
        "wallet_secret_changed",
        "unexpected_auth_state",
        "invalid_address",
        "unauthorized",
        "invalid_request",
        "signature_mismatch",
        "profile_unauthorized",
    }
)


def build(service: Service, clock: Any = None, *, default_clock: bool = False, **options: Any) -> Any:
    """A manager of `service`, by default with a hand clock."""
    options.setdefault("clock", None if default_clock else clock or HandClock())
    return canary.watch(auth.AuthManager(KEY, BASE, _transport=service, **options))


def reason(error: BaseException) -> str:
    """The reason of an error that must be an AuthError."""
    assert type(error) is auth.AuthError, repr(error)
    assert str(error) == error.reason
    return error.reason

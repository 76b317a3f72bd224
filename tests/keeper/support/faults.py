"""Faults of a service and of the network."""

from __future__ import annotations

import http.client
import ssl
from collections.abc import Callable
from typing import Any

from tests.contract.support.service import CHALLENGE, REGISTER, VERIFY, answer

from .service import Answer, Asked, Fault


def raises(make: Callable[[], BaseException]) -> Fault:
    """Each request fails with a new error."""

    def fault(asked: Asked) -> Answer | None:
        raise make()

    return fault


def answers(status: int, value: Any = None, *, path: str | None = None, **headers: str) -> Fault:
    """Each request, or each to `path`, gets this response."""

    def fault(asked: Asked) -> Answer | None:
        return answer(status, value, **headers) if path in (None, asked.path) else None

    return fault


def away() -> Fault:
    return raises(lambda: ConnectionRefusedError("nobody listens"))


# Retried without a limit. The text is that of the error with which a login ends.
TRANSIENT: dict[str, tuple[Fault, str]] = {
    "away": (away(), "Server unreachable after 3 attempts"),
    "too slow": (raises(lambda: TimeoutError("too slow")), "Server unreachable after 3 attempts"),
    "overloaded": (answers(503), "Server unreachable after 3 attempts"),
    "too many": (answers(429, Retry_After="2"), "Server unreachable after 3 attempts"),
    "stale challenges": (
        answers(410, path=VERIFY),
        "stale authentication challenge after 3 attempts",
    ),
    "a proxy refuses": (raises(lambda: OSError("the proxy refuses")), "the proxy refuses"),
    "no descriptor": (raises(lambda: OSError(24, "Too many open files")), "[Errno 24] Too many open files"),
    "no memory": (raises(MemoryError), ""),
    "no thread": (raises(lambda: RuntimeError("can't start new thread")), "can't start new thread"),
}

# Stops a wallet at any time. The text is that of the error, for an AuthError its reason.
FINAL: dict[str, tuple[Fault, str]] = {
    "register 400": (answers(400, path=REGISTER), "invalid_address"),
    "register 401": (answers(401, path=REGISTER), "unauthorized"),
    "register 403": (answers(403, path=REGISTER), "unauthorized"),
    "challenge 401": (answers(401, path=CHALLENGE), "unauthorized"),
    "challenge 400": (answers(400, path=CHALLENGE), "invalid_request"),
    "verify 400": (answers(400, path=VERIFY), "invalid_request"),
    "verify 401": (answers(401, path=VERIFY), "signature_mismatch"),
} | {
    invite: (answers(403, {"error": invite}, path=REGISTER), invite)
    for invite in ("invite_required", "invite_invalid", "invite_already_redeemed", "invite_revoked")
}

# Stops a wallet that has never logged in, and is retried if it has.
FINAL_AT_FIRST: dict[str, tuple[Fault, type[BaseException]]] = {
    "certificate": (
        raises(lambda: ssl.SSLCertVerificationError("certificate verify failed")),
        ssl.SSLCertVerificationError,
    ),
    "TLS": (raises(lambda: ssl.SSLError("wrong version number")), ssl.SSLError),
    "not HTTP": (raises(lambda: http.client.BadStatusLine("SSH-2.0")), http.client.BadStatusLine),
    "no token": (answers(200, {"expires_at": 0, "wallet_secret": ""}, path=VERIFY), KeyError),
}

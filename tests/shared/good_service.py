"""A service without a socket whose responses are all successful, or from a table."""

from __future__ import annotations

import base64
import json
from typing import Any


def token_of(subject: str) -> str:
    """A token with its wallet and nothing else."""
    parts = ({"alg": "none"}, {"sub": subject})
    segments = [base64.urlsafe_b64encode(json.dumps(part).encode()).rstrip(b"=").decode() for part in parts]
    return ".".join([*segments, "AA"])


class GoodService:
    """An HttpTransport with one successful response per endpoint. signatures: those received so far."""

    def __init__(self, message: str = "Sign in", secret: bytes | str = bytes(32), token: str = "") -> None:
        self.signatures: list[str] = []
        self._message = message
        self._secret = base64.b64encode(secret).decode() if isinstance(secret, bytes) else secret
        self._token = token
        self._address = ""

    def __call__(
        self, method: str, url: str, headers: Any = None, body: Any = None
    ) -> tuple[int, dict[str, str], bytes]:
        asked = json.loads(body)
        answer: dict[str, Any] = {"status": "registered"}
        if url.endswith("/auth/challenge"):
            self._address = asked["wallet_address"]
            answer = {"challenge_id": "challenge-1", "message": self._message}
        elif url.endswith("/auth/verify"):
            self.signatures.append(asked["signature"])
            answer = {
                "token": self._token or token_of(self._address),
                "expires_at": 4_000_000_000,
                "wallet_secret": self._secret,
            }
        return 200, {}, json.dumps(answer).encode()

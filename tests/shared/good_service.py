"""A service without a socket that says yes to everything, for programs that a tool watches."""

from __future__ import annotations

import base64
import json
from typing import Any


def token_of(subject: str) -> str:
    """A token that names its wallet and nothing else."""
    parts = ({"alg": "none"}, {"sub": subject})
    segments = [base64.urlsafe_b64encode(json.dumps(part).encode()).rstrip(b"=").decode() for part in parts]
    return ".".join([*segments, "AA"])


class GoodService:
    """An HttpTransport with one good answer for each endpoint. signatures: those that it was sent."""

    def __init__(self) -> None:
        self.signatures: list[str] = []
        self._address = ""

    def __call__(
        self, method: str, url: str, headers: Any = None, body: Any = None
    ) -> tuple[int, dict[str, str], bytes]:
        asked = json.loads(body)
        answer: dict[str, Any] = {"status": "registered"}
        if url.endswith("/auth/challenge"):
            self._address = asked["wallet_address"]
            answer = {"challenge_id": "challenge-1", "message": "Sign in"}
        elif url.endswith("/auth/verify"):
            self.signatures.append(asked["signature"])
            answer = {
                "token": token_of(self._address),
                "expires_at": 4_000_000_000,
                "wallet_secret": base64.b64encode(bytes(32)).decode(),
            }
        return 200, {}, json.dumps(answer).encode()

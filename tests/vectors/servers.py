"""A server in memory that gives back what a table says."""

from __future__ import annotations

import base64
import json
from typing import Any

from tessaline import auth

URL = "https://auth.example.test"


def token_for(subject: str) -> str:
    """An unsigned token: the client leaves signatures to the server."""
    parts = ({"alg": "none"}, {"sub": subject})
    segments = [base64.urlsafe_b64encode(json.dumps(part).encode()).rstrip(b"=").decode() for part in parts]
    return f"{segments[0]}.{segments[1]}."


class TableServer:
    """An HttpTransport; what is not given is as a well-behaved server would have it."""

    def __init__(self, *, message: str = "Sign in", secret: str = "AAAA", token: str | None = None) -> None:
        self.message = message
        self.secret = secret
        self.token = token
        self.address = ""
        self.signature = ""

    def __call__(self, method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        asked = json.loads(body)
        if url.endswith("/auth/challenge"):
            self.address = asked["wallet_address"]
            answer: dict[str, Any] = {"challenge_id": "challenge-1", "message": self.message}
        elif url.endswith("/auth/verify"):
            self.signature = asked["signature"]
            answer = {
                "token": self.token or token_for(self.address),
                "expires_at": 4_000_000_000,
                "wallet_secret": self.secret,
            }
        else:
            answer = {"status": "registered"}
        return 200, {}, json.dumps(answer).encode()

    def manager(self, key: str = "1" * 64) -> Any:
        return auth.AuthManager(key, URL, clock=lambda: 1000.0, _transport=self)

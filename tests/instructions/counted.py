"""Runs under callgrind: marks what is counted, by name."""

from __future__ import annotations

import base64
import json
from typing import Any

import instructions
from tessaline import auth


class Server:
    """An HttpTransport with one good answer for each endpoint."""

    def __call__(
        self, method: str, url: str, headers: Any = None, body: Any = None
    ) -> tuple[int, dict[str, str], bytes]:
        asked = json.loads(body)
        answer: dict[str, Any] = {}
        if url.endswith("/auth/challenge"):
            self.wallet = asked["wallet_address"]
            answer = {"challenge_id": "c", "message": "m"}
        elif url.endswith("/auth/verify"):
            answer = {"token": self.token(), "expires_at": 4_000_000_000, "wallet_secret": "c2VjcmV0"}
        return 200, {}, json.dumps(answer).encode()

    def token(self) -> str:
        parts = ({"alg": "none"}, {"sub": self.wallet})
        segments = [base64.urlsafe_b64encode(json.dumps(part).encode()).rstrip(b"=") for part in parts]
        return b".".join([*segments, b"AA"]).decode()


def main(calls: int, signatures: int) -> None:
    manager = auth.AuthManager("1" * 64, "https://auth.example.test", _transport=Server())
    manager.authenticate()
    empty = instructions.Empty()
    for name, served in (("empty", empty), ("served", manager)):
        instructions.call_method("warm-up", served, "get_token", 1)
        instructions.call_method(name, served, "get_token", calls)
    for size in (32, 16384):
        instructions.bare_signing(f"bare {size}", size, signatures)
        instructions.login_signing(f"signed {size}", size, signatures)
    manager.close()

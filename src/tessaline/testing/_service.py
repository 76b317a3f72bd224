"""The service that wallets log in at, for tests."""

from __future__ import annotations

import base64
import json
import threading
from collections.abc import Mapping
from typing import Any
from urllib.parse import urlsplit

_ENDPOINTS = ("/auth/register", "/auth/challenge", "/auth/verify", "/api/profile/display_name")


class FakeService:
    """The server without a network: a transport for the `_transport` of an `AuthManager`.

    Any number of wallets may log in, from any thread. It accepts every signature.

    A test may set the first four attributes at any time; the others record what the service has seen.

    Attributes:
        away: True simulates an outage: every request raises `ConnectionError`.
        era: The era of new tokens, 1 at first; None for tokens without an era.
        invite_only: True if new wallets need an invite code; it accepts any.
        refuses: Lowercase addresses of wallets that it refuses: their logins fail with "unauthorized".
        logins: The number of successful logins.
        requests: The paths of all requests in order, including those during an outage.
        names: The display names by wallet address.
    """

    def __init__(self) -> None:
        self.away = False
        self.era: int | None = 1
        self.invite_only = False
        self.refuses: set[str] = set()
        self.logins = 0
        self.requests: list[str] = []
        self.names: dict[str, str] = {}
        self._lock = threading.Lock()
        self._given: set[str] = set()

    def __call__(
        self, method: str, url: str, headers: Mapping[str, str] | None = None, body: str | bytes | None = None
    ) -> tuple[int, Mapping[str, str], bytes]:
        path = urlsplit(url).path
        with self._lock:
            self.requests.append(path)
            if self.away:
                raise ConnectionError("the service is away")
            status, answer = self._answer(path, dict(headers or {}), json.loads(body or "{}"))
        return status, {}, json.dumps(answer).encode()

    def accepts(self, token: str) -> bool:
        """Whether it accepts a request with this token: it issued the token, in its current era."""
        return token in self._given and claims_of(token).get("era_number") == self.era

    def forget_tokens(self) -> None:
        """Refuse every token issued so far, like a server whose signing key was changed."""
        self._given.clear()

    def _answer(
        self, path: str, headers: dict[str, str], asked: dict[str, Any]
    ) -> tuple[int, dict[str, Any]]:
        match next((endpoint for endpoint in _ENDPOINTS if path.endswith(endpoint)), path):
            case "/auth/register" if asked["wallet_address"] in self.refuses:
                return 403, {"error": "unauthorized"}
            case "/auth/register" if self.invite_only and "invite_code" not in asked:
                return 403, {"error": "invite_required"}
            case "/auth/register":
                return 200, {}
            case "/auth/challenge":
                # The challenge is named after its wallet, so that several can log in at once.
                return 200, {"challenge_id": asked["wallet_address"], "message": "Log in"}
            case "/auth/verify":
                self.logins += 1
                token = self._token(asked["challenge_id"])
                secret = base64.b64encode(bytes(32)).decode()
                return 200, {"token": token, "expires_at": 0, "wallet_secret": secret}
            case "/api/profile/display_name":
                token = headers["Authorization"].removeprefix("Bearer ")
                if not self.accepts(token):
                    return 401, {}
                self.names[claims_of(token)["sub"]] = asked["display_name"]
                return 200, asked
            case _:
                return 404, {}

    def _token(self, address: str) -> str:
        """A token as the manager reads it; it leaves the signature to the servers."""
        claims = {"sub": address, "login": self.logins}
        if self.era is not None:
            claims["era_number"] = self.era
        parts = ({"alg": "none"}, claims)
        coded = [base64.urlsafe_b64encode(json.dumps(part).encode()).rstrip(b"=").decode() for part in parts]
        token = ".".join([*coded, "signature"])
        self._given.add(token)
        return token


def claims_of(token: str) -> dict[str, Any]:
    """The unverified claims of a token.

    Those of a `FakeService`: "sub" (the wallet's address), "login" (the number of the login, counted from 1
    over all wallets) and "era_number".

    Args:
        token: A JWT.
    """
    payload = token.split(".")[1]
    claims: dict[str, Any] = json.loads(base64.urlsafe_b64decode(payload + "=" * (-len(payload) % 4)))
    return claims

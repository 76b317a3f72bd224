"""Bearer tokens: issued at login, checked at the profile endpoint."""

import json
import secrets
from collections.abc import Mapping
from typing import Any

import jwt

from .refusal import Refusal
from .rules import is_number
from .settings import Settings

ALGORITHM = "HS256"


class Tokens:
    """Issues and checks the service's tokens.

    key: at least 32 bytes that sign them.
    """

    def __init__(self, key: bytes, settings: Settings) -> None:
        self._key = key
        self._settings = settings

    def issue(self, address: str) -> tuple[str, int]:
        """A token for the checksum `address` and its expiry in Unix seconds."""
        issued_at = int(self._settings.now())
        expires_at = issued_at + int(self._settings.token_lifetime)
        claims: dict[str, Any] = {"sub": address, "iat": issued_at, "exp": expires_at}
        if self._settings.era is not None:
            claims["era_number"] = self._settings.era
        claims["jti"] = secrets.token_hex(16)
        return self.sign(claims | self._settings.claims), expires_at

    def sign(self, claims: Mapping[str, Any]) -> str:
        """A token with exactly these `claims`."""
        # Through the signature layer: the claims layer rejects invalid claims, which a script may have.
        return jwt.PyJWS().encode(_compact(claims), self._key, algorithm=ALGORITHM)

    def claims(self, token: str) -> dict[str, Any]:
        """The claims of one of our tokens, without checking times and era; Refusal 401 for any other text."""
        unchecked = {f"verify_{name}": False for name in ("exp", "nbf", "iat", "aud", "iss", "sub", "jti")}
        try:
            return jwt.decode(token, self._key, algorithms=[ALGORITHM], options=unchecked)  # type: ignore[arg-type]
        except jwt.PyJWTError:
            raise Refusal(401, "unauthorized") from None

    def bearer(self, authorization: str | None) -> str:
        """The wallet of the token in the "Authorization" value; Refusal 401 unless the token is valid.

        Valid is a token of ours, unexpired by the service's clock, of the current era if there is one.
        """
        scheme, _, token = (authorization or "").partition(" ")
        if scheme.lower() != "bearer" or not token:
            raise Refusal(401, "unauthorized")
        claims = self.claims(token)
        expires_at = claims.get("exp")
        if expires_at is None or not is_number(expires_at) or expires_at <= self._settings.now():
            raise Refusal(401, "token_expired")
        if self._settings.era is not None and claims.get("era_number") != self._settings.era:
            raise Refusal(401, "era_over")
        subject = claims.get("sub")
        if not isinstance(subject, str):
            raise Refusal(401, "unauthorized")
        return subject


def _compact(claims: Mapping[str, Any]) -> bytes:
    return json.dumps(claims, separators=(",", ":")).encode()

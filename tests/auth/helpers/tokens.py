"""Hand-made tokens, including every malformed variant."""

from __future__ import annotations

import base64
import json
from typing import Any

import jwt

SIGNING_KEY = "the development key of the fake server, long enough for HS256"


def b64url(data: bytes) -> str:
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode("ascii")


def with_payload_bytes(payload: bytes) -> str:
    """A token whose second segment holds exactly these bytes."""
    return f"{b64url(b'{"alg":"none"}')}.{b64url(payload)}.{b64url(b'signature')}"


def with_payload(payload: Any) -> str:
    """A token whose payload is this JSON value."""
    return with_payload_bytes(json.dumps(payload).encode("utf-8"))


def with_payload_text(text: str) -> str:
    """A token whose payload is this JSON text, well-formed or not."""
    return with_payload_bytes(text.encode("utf-8"))


def issued(subject: str, era: Any = None, **claims: Any) -> str:
    """A signed token as a server would issue it."""
    payload: dict[str, Any] = {"sub": subject, **claims}
    if era is not None:
        payload["era_number"] = era
    return jwt.encode(payload, SIGNING_KEY, algorithm="HS256")

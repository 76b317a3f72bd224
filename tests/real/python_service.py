"""The service for servers of Python programs: it accepts every signature, and records only connections."""

from __future__ import annotations

import base64
import itertools
import json

_connections: set[int] = set()
_numbers = itertools.count()


def _token(subject: str) -> str:
    """An unsigned token, different each time."""
    parts = ({"alg": "none"}, {"sub": subject, "jti": next(_numbers)})
    return ".".join(
        [*(base64.urlsafe_b64encode(json.dumps(part).encode()).rstrip(b"=").decode() for part in parts), "AA"]
    )


def answered(path: str, body: bytes, connection: int) -> tuple[int, bytes]:
    """The status and the body of a response. connection: the port of the client."""
    if path == "/connections":
        return 200, json.dumps(len(_connections)).encode()
    _connections.add(connection)
    asked = json.loads(body)
    if path == "/auth/register":
        return 200, json.dumps({"wallet_address": asked["wallet_address"]}).encode()
    if path == "/auth/challenge":
        # The address is the challenge's name, so that no state is needed.
        return 200, json.dumps({"challenge_id": asked["wallet_address"], "message": "Sign in"}).encode()
    if path == "/auth/verify":
        told = {
            "token": _token(asked["challenge_id"]),
            "expires_at": 4_000_000_000,
            "wallet_secret": base64.b64encode(bytes(32)).decode(),
        }
        return 200, json.dumps(told).encode()
    return 404, b"{}"

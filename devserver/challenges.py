"""Challenges: texts that a wallet signs once to prove that it holds its key."""

import re
import secrets
from collections import OrderedDict
from dataclasses import dataclass
from datetime import UTC, datetime
from typing import Any

# Not from eth-account, whose import takes longer than the whole server's.
from eth_keys.datatypes import Signature
from eth_utils.crypto import keccak

from .refusal import Refusal
from .settings import Settings

# Used and expired challenges are kept, to distinguish them from unknown ones.
_REMEMBERED = 10_000
_SIGNATURE = re.compile(r"0x[0-9a-fA-F]{130}")


@dataclass
class _Challenge:
    address: str
    message: str
    expires_at: float
    used: bool = False


class Challenges:
    """Issued challenges by their id."""

    def __init__(self, settings: Settings) -> None:
        self._settings = settings
        self._issued: OrderedDict[str, _Challenge] = OrderedDict()

    def clear(self) -> None:
        """Forget every challenge."""
        self._issued.clear()

    def issue(self, address: str) -> tuple[str, str]:
        """A new challenge for the checksum `address`: its id and the text to sign."""
        now = self._settings.now()
        issued_at = datetime.fromtimestamp(now, UTC).isoformat(timespec="milliseconds")
        message = (
            "Sign in to the development server.\n"
            "\n"
            f"Address: {address}\n"
            f"Nonce: {secrets.token_hex(16)}\n"
            f"Issued at: {issued_at}"
        )
        challenge_id = secrets.token_urlsafe(18)
        self._issued[challenge_id] = _Challenge(address, message, now + self._settings.challenge_lifetime)
        if len(self._issued) > _REMEMBERED:
            self._issued.popitem(last=False)
        return challenge_id, message

    def answer(self, challenge_id: Any, signature: Any) -> str:
        """Use up the challenge and return the checksum address of the wallet that has signed it.

        signature: "0x" and 130 hex digits (r, s, v) over the challenge's text as a personal message.
        Refusal: 400 wrong types, 404 unknown, 409 used, 410 expired, 401 bad signature.
        The first request in time uses it up, even with a malformed or wrong signature.
        """
        if not isinstance(challenge_id, str) or not isinstance(signature, str):
            raise Refusal(400, "invalid_request")
        challenge = self._issued.get(challenge_id)
        if challenge is None:
            raise Refusal(404, "challenge_unknown")
        if challenge.used:
            raise Refusal(409, "challenge_used")
        if self._settings.now() >= challenge.expires_at:
            raise Refusal(410, "challenge_expired")
        challenge.used = True
        if _signer(challenge.message, signature) != challenge.address:
            raise Refusal(401, "signature_mismatch")
        return challenge.address


def _signer(message: str, signature: str) -> str | None:
    if not _SIGNATURE.fullmatch(signature):
        return None
    text = message.encode()
    *r_and_s, v = bytes.fromhex(signature[2:])
    try:
        # EIP-191, version 0x45: a personal message.
        digest = keccak(b"\x19Ethereum Signed Message:\n%d%b" % (len(text), text))
        recovered = Signature(bytes([*r_and_s, v - 27 if v >= 27 else v]))
        return recovered.recover_public_key_from_msg_hash(digest).to_checksum_address()
    except Exception:
        # The library raises several unrelated types for an invalid signature.
        return None

"""Key texts as the host gives them: accepted exactly when they are a key, and never repeated."""

from __future__ import annotations

import re

from tessaline import auth

from ..hosted import outcome, text_of, words_of

ORDER = auth._SECP256K1_ORDER
DIGITS = re.compile("[0-9a-fA-F]{64}")


def expected(text: str) -> str:
    """The key's digits, or the message of the refusal."""
    if not text:
        return "Private key must not be empty"
    raw = text[2:] if text[:2] in ("0x", "0X") else text
    if len(raw) != 64:
        return f"Private key must be 32 bytes (64 hex chars), got {len(raw)} hex chars"
    if not DIGITS.fullmatch(raw):
        return "Private key contains non-hex characters"
    if not 0 < int(raw, 16) < ORDER:
        return "Private key is not a valid secp256k1 scalar"
    return raw


def one_input(data: bytes) -> None:
    text = text_of(data)
    got = outcome(auth._validate_private_key, text)
    if not isinstance(got, Exception):
        assert got == expected(text)
        assert auth._validate_private_key(got) == got
        check_manager(text, got)
        return
    assert type(got) is auth.InvalidKeyError, repr(got)
    assert str(got) == expected(text)
    said = words_of(got)
    assert len(text) < 24 or not any(text[i : i + 12] in said for i in range(len(text) - 11))


def check_manager(text: str, digits: str) -> None:
    manager = auth.AuthManager(text, "https://auth.example.test")
    assert manager._private_key == digits
    assert digits.lower() not in repr(manager).lower()
    manager.close()
    assert manager._private_key is None

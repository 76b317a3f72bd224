"""Tokens of a server, compared with Python's own decoders."""

from __future__ import annotations

import base64
import json
from typing import Any

from tessaline import auth

from ..hosted import outcome, text_of, words_of

ADDRESS = "0x" + "ab" * 20
MISMATCH = "wallet_mismatch"


def expected_payload(token: str) -> dict[str, Any] | None:
    """None if the token must be refused."""
    segments = token.split(".")
    if len(segments) != 3:
        return None
    padded = segments[1] + "=" * (-len(segments[1]) % 4)
    try:
        value = json.loads(base64.urlsafe_b64decode(padded.encode("ascii")))
    except Exception:
        return None
    return value if isinstance(value, dict) else None


def expected_era(payload: dict[str, Any]) -> Any:
    claim = payload.get("era_number")
    if claim is None or isinstance(claim, bool):
        return None
    try:
        era = int(claim)
    except (TypeError, ValueError, OverflowError):
        return "era_mismatch"
    return era if era > 0 else None


def reason(got: Any) -> Any:
    """The reason of an error, else the value."""
    if not isinstance(got, Exception):
        return got
    assert type(got) is auth.AuthError, repr(got)
    assert str(got) == got.reason
    return got.reason


def same(one: Any, other: Any) -> bool:
    # NaN differs from itself.
    return repr(one) == repr(other)


def one_input(data: bytes) -> None:
    check_token(text_of(data))
    # The same bytes as a payload, so that a mutation changes one of the claims.
    encoded = base64.urlsafe_b64encode(data).rstrip(b"=").decode()
    check_token(f"e30.{encoded}.c2ln")


def check_token(token: str) -> None:
    payload = expected_payload(token)
    got = outcome(auth._decode_jwt_payload_unverified, token)
    assert same(reason(got), MISMATCH if payload is None else payload)
    if isinstance(got, Exception):
        assert len(token) < 24 or token[4:-4] not in words_of(got)

    era = outcome(auth._jwt_era_number, token)
    assert same(reason(era), MISMATCH if payload is None else expected_era(payload))
    subject = None if payload is None else payload.get("sub")
    fits = isinstance(subject, str) and subject.lower() == ADDRESS
    held = outcome(auth._assert_token_subject_matches_wallet, token, ADDRESS)
    assert reason(held) == (None if fits else MISMATCH)
    check_bytes(token, era)


def check_bytes(token: str, era: Any) -> None:
    """The era of a token given as bytes equals that of the text."""
    by_bytes = reason(outcome(auth._jwt_era_number, token.encode("utf-8", "surrogatepass")))
    assert same(by_bytes, reason(era) if token.isascii() else "era_mismatch")

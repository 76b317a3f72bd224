"""Tokens and base64 texts of public tables, through a manager."""

from __future__ import annotations

import json
from typing import Any

import pytest

from tessaline import auth
from tests.shared.good_service import GoodService

from . import tables

TOKENS = tables.tokens()
CLAIMS = {"iss": "joe", "exp": 1300819380, "http://example.com/is_root": True}
SECRETS = tables.rows("base64/base64.tsv")


def claims_of(row: dict[str, str]) -> dict[str, Any] | None:
    """The claims, if the payload is a JSON object: only then the token has claims."""
    try:
        value = json.loads(row["payload"])
    except ValueError:
        return None
    return value if isinstance(value, dict) else None


def test_how_many_rows_there_are() -> None:
    assert len(TOKENS) == 10
    assert [row["name"] for row in TOKENS if claims_of(row) is not None] == [
        "RFC 7515 A.1",
        "RFC 7515 A.2",
        "RFC 7515 A.3",
        "RFC 7515 A.5",
    ]
    assert len(SECRETS) == 10


@pytest.mark.parametrize("row", TOKENS, ids=lambda row: row["name"])
def test_the_payload_of_a_token_is_read_or_the_token_refused(row: dict[str, str]) -> None:
    if claims_of(row) is not None:
        assert auth._decode_jwt_payload_unverified(row["token"]) == CLAIMS
        assert auth._jwt_era_number(row["token"]) is None
        return
    with pytest.raises(auth.AuthError) as caught:
        auth._decode_jwt_payload_unverified(row["token"])
    assert caught.value.reason == "wallet_mismatch"


@pytest.mark.parametrize("row", TOKENS, ids=lambda row: row["name"])
def test_a_manager_takes_no_token_of_another(row: dict[str, str]) -> None:
    with tables.manager_of(GoodService(token=row["token"])) as manager:
        with pytest.raises(auth.AuthError) as caught:
            manager.authenticate()
        assert caught.value.reason == "wallet_mismatch"
        with pytest.raises(auth.AuthError) as caught:
            manager.get_wallet_secret()
        assert caught.value.reason == "not_authenticated"


@pytest.mark.parametrize("row", SECRETS, ids=lambda row: row["text"] or "empty")
def test_a_wallet_secret_is_decoded(row: dict[str, str]) -> None:
    with tables.manager_of(GoodService(secret=row["text"])) as manager:
        manager.authenticate()
        assert manager.get_wallet_secret() == bytes.fromhex(row["bytes"])

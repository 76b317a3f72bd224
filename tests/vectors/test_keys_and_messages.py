"""Addresses and signatures of public tables, through a manager."""

from __future__ import annotations

import pytest
from eth_utils.crypto import keccak

from tests.shared.good_service import GoodService

from . import tables

MESSAGES = tables.rows("messages/personal_messages.tsv")


def is_text(row: dict[str, str]) -> bool:
    try:
        bytes.fromhex(row["message"]).decode()
    except UnicodeDecodeError:
        return False
    return True


def test_every_public_key_gives_its_address() -> None:
    rows = tables.rows("curve/public_keys.tsv")
    assert len(rows) == 1125
    for row in rows:
        point = bytes.fromhex(row["x"] + row["y"])
        expected = "0x" + keccak(point)[-20:].hex()
        with tables.manager_of(GoodService(), row["d"]) as manager:
            assert manager.get_wallet_address() == expected


def test_how_many_messages_there_are() -> None:
    assert len(MESSAGES) == 6
    assert sum(map(is_text, MESSAGES)) == 4
    assert sum(row["address"] != "" for row in MESSAGES) == 3


@pytest.mark.parametrize("row", [row for row in MESSAGES if is_text(row)], ids=lambda row: row["name"])
def test_a_challenge_is_signed_as_a_personal_message(row: dict[str, str]) -> None:
    service = GoodService(message=bytes.fromhex(row["message"]).decode())
    with tables.manager_of(service, row["key"]) as manager:
        manager.authenticate()
    assert service.signatures == ["0x" + row["signature"]]


@pytest.mark.parametrize("row", [row for row in MESSAGES if row["address"]], ids=lambda row: row["name"])
def test_a_key_has_the_address_of_its_source(row: dict[str, str]) -> None:
    with tables.manager_of(GoodService(), row["key"]) as manager:
        assert manager.get_wallet_address() == "0x" + row["address"]

"""The page about keys: its examples run, and its statements on modes and errors are true."""

from __future__ import annotations

import builtins
import getpass
import json
import os
import secrets
from pathlib import Path
from typing import Any

import pytest
from eth_account import Account

from tessaline import keys
from tessaline.auth import AuthManager
from tests.docs.pages import DOCS, code_blocks, code_in, rows, run

pytestmark = pytest.mark.process

PAGE = DOCS / "keys.md"


def test_its_examples_run(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    key, password = secrets.token_hex(32), secrets.token_hex(8)
    monkeypatch.chdir(tmp_path)
    monkeypatch.setenv("WALLET_KEY", key)
    monkeypatch.setattr(getpass, "getpass", lambda _: password)
    Path("wallet.key").touch(0o600)
    Path("wallet.key").write_text(f"{key}\n")
    store = Account.encrypt(bytes.fromhex(key), password, kdf="pbkdf2", iterations=2)
    Path("keystore.json").write_text(json.dumps(store))
    address = Account.from_key(key).address.lower()
    found = code_blocks(PAGE)
    assert len(found) == 3
    names: dict[str, Any] = {}
    for block in found:
        names.pop("manager", None)
        run(block, names)
        manager: AuthManager = names["manager"]
        assert manager.get_wallet_address() == address
        manager.close()
    assert "WALLET_KEY" not in os.environ


def test_it_has_every_function() -> None:
    functions = {name for name in keys.__all__ if callable(getattr(keys, name)) and name.islower()}
    assert {code_in(row[0])[0].partition("(")[0] for row in rows(PAGE, "Exceptions")} <= {
        *(name for name in dir(builtins) if name.endswith("Error")),
        "InvalidKeyError",
    }
    told = {code for row in rows(PAGE, "Exceptions") for code in code_in(row[1])}
    assert told == functions


@pytest.mark.parametrize(("mode", "readable_by"), [(0o444, "all"), (0o440, "group"), (0o640, "group")])
def test_the_secrets_of_containers_can_be_read(
    tmp_path: Path, mode: int, readable_by: keys.ReadableBy
) -> None:
    path = tmp_path / "secret"
    path.write_text(secrets.token_hex(32))
    path.chmod(mode)
    with pytest.raises(PermissionError):
        keys.from_file(path)
    assert len(keys.from_file(path, readable_by=readable_by)) == 64

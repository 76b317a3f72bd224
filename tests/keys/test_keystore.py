"""A key from a version 3 JSON keystore."""

from __future__ import annotations

import json
import secrets
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest
from eth_account import Account

from tessaline.auth import InvalidKeyError
from tessaline.keys import from_keystore

from .discretion import shows

# The example in the definition of the format ("Web3 Secret Storage"), with PBKDF2.
PUBLISHED: dict[str, Any] = {
    "crypto": {
        "cipher": "aes-128-ctr",
        "cipherparams": {"iv": "6087dab2f9fdbbfaddc31a909735c1e6"},
        "ciphertext": "5318b4d5bcd28de64ee5559e671353e16f075ecae9f99c7a79a38af5f869aa46",
        "kdf": "pbkdf2",
        "kdfparams": {
            "c": 262144,
            "dklen": 32,
            "prf": "hmac-sha256",
            "salt": "ae3cd4e7013836a3df6bd7241b12db061dbe2c6785853cce422d148a624ce0bd",
        },
        "mac": "517ead924a9d0dc3124507e3393d175ce3ff7c1e96529c6c555ce9e51205e9b2",
    },
    "id": "3198bc9c-6672-5ab3-d995-4942343ae5b6",
    "version": 3,
}
ITS_PASSWORD = "testpassword"
ITS_KEY = "7a28b5ba57c53603b0b07b56bba752f7784bf506fa95edc395f5cf6c7514fe9d"

KEY = secrets.token_hex(32)
PASSWORD = f"päss {secrets.token_hex(8)}"


def encrypted(key: str = KEY, kdf: str = "pbkdf2") -> dict[str, Any]:
    """A keystore that is decrypted quickly."""
    store: dict[str, Any] = Account.encrypt(bytes.fromhex(key), PASSWORD, kdf=kdf, iterations=2)  # type: ignore[arg-type]
    return store


@pytest.fixture
def path(tmp_path: Path) -> Path:
    path = tmp_path / "keystore.json"
    path.write_text(json.dumps(encrypted()))
    path.chmod(0o644)
    return path


def test_the_published_example(path: Path) -> None:
    path.write_text(json.dumps(PUBLISHED))
    assert (from_keystore(path, ITS_PASSWORD) == ITS_KEY) is True


@pytest.mark.parametrize("kdf", ["pbkdf2", "scrypt"])
def test_what_another_program_encrypted(path: Path, kdf: str) -> None:
    path.write_text(json.dumps(encrypted(kdf=kdf)))
    assert (from_keystore(str(path), PASSWORD) == KEY) is True


def test_the_names_of_its_fields_may_have_capitals(path: Path) -> None:
    store = encrypted()
    store["Crypto"] = store.pop("crypto")
    path.write_text(json.dumps(store))
    assert (from_keystore(path, PASSWORD) == KEY) is True


def test_leading_zeros_stay(path: Path) -> None:
    path.write_text(json.dumps(encrypted("05".zfill(64))))
    assert from_keystore(path, PASSWORD).endswith("05")
    assert len(from_keystore(path, PASSWORD)) == 64


@pytest.mark.parametrize("password", ["", "another", PASSWORD + " ", "\ud800"])
def test_another_password_is_refused(path: Path, password: str) -> None:
    with pytest.raises(ValueError) as caught:
        from_keystore(path, password)
    expected = f"{path} cannot be decrypted: the password is wrong, or the file is damaged"
    assert str(caught.value) == expected
    assert caught.value.__context__ is None
    assert not shows(caught.value, KEY)


def test_neither_password_nor_key_is_in_the_refusal(path: Path) -> None:
    store = encrypted()
    store["crypto"]["mac"] = "00" * 32
    path.write_text(json.dumps(store))
    with pytest.raises(ValueError) as caught:
        from_keystore(path, PASSWORD)
    texts = [str(caught.value), repr(caught.value), repr(vars(caught.value))]
    assert not any(PASSWORD in text or KEY in text for text in texts)
    assert caught.value.__context__ is None


@pytest.mark.parametrize("missing", ["ciphertext", "kdf", "mac", "cipherparams"])
def test_a_damaged_one_is_refused_alike(path: Path, missing: str) -> None:
    store = encrypted()
    del store["crypto"][missing]
    path.write_text(json.dumps(store))
    with pytest.raises(ValueError, match="or the file is damaged"):
        from_keystore(path, PASSWORD)


@pytest.mark.parametrize(
    "content",
    [
        "",
        KEY,
        json.dumps(KEY),
        "[" * 100_000,
        "{}",
        json.dumps({"version": 3}),
        json.dumps({"version": 3, "crypto": KEY}),
        json.dumps(encrypted() | {"version": 4}),
        json.dumps(encrypted() | {"version": "3"}),
    ],
    ids=[
        "empty",
        "a key",
        "a text",
        "deep",
        "no fields",
        "no crypto",
        "other crypto",
        "four",
        "a text's three",
    ],
)
def test_what_is_no_keystore_is_refused_before_anything_is_decrypted(
    path: Path, monkeypatch: pytest.MonkeyPatch, content: str
) -> None:
    def decrypt(*_: object) -> bytes:
        raise AssertionError("it was decrypted")

    monkeypatch.setattr(Account, "decrypt", decrypt)
    path.write_text(content)
    with pytest.raises(ValueError) as caught:
        from_keystore(path, PASSWORD)
    assert str(caught.value) == f"{path} is no version 3 JSON keystore"
    assert not shows(caught.value, KEY)


def test_what_was_encrypted_may_be_no_key(path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(Account, "decrypt", lambda *_: bytes(32))
    with pytest.raises(InvalidKeyError) as caught:
        from_keystore(path, PASSWORD)
    assert f"it was read from the keystore {path}" in caught.value.__notes__


def test_a_lack_of_memory_is_told_as_such(path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    def decrypt(*_: object) -> bytes:
        raise MemoryError

    monkeypatch.setattr(Account, "decrypt", decrypt)
    with pytest.raises(MemoryError):
        from_keystore(path, PASSWORD)


def test_what_is_missing_can_be_installed(path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setitem(sys.modules, "eth_account", None)
    with pytest.raises(ImportError, match=r"pip install tessaline\[keystore\]") as caught:
        from_keystore(path, PASSWORD)
    assert caught.value.name == "eth_account"


def test_nothing_of_it_is_loaded_before() -> None:
    program = "import sys, tessaline.keys; print([name for name in sys.modules if name.startswith('eth_')])"
    done = subprocess.run(
        [sys.executable, "-c", program], check=True, capture_output=True, text=True, timeout=60
    )
    assert done.stdout == "[]\n"

"""A key with a line end that is passed to a manager keeps its error, whose note gives the reason."""

from __future__ import annotations

import secrets

import pytest

from tessaline import auth

from .discretion import shows

NOTE = "too long by exactly a newline: strip the text, as tessaline.keys does"
URL = "https://service.example"


def refusal(key: str) -> auth.InvalidKeyError:
    with pytest.raises(auth.InvalidKeyError) as caught:
        auth.AuthManager(key, URL)
    return caught.value


@pytest.mark.parametrize(("end", "length"), [("\n", 65), ("\r", 65), ("\r\n", 66), ("\n\n", 66)])
@pytest.mark.parametrize("prefix", ["", "0x"])
def test_a_key_with_a_line_end(prefix: str, end: str, length: int) -> None:
    key = secrets.token_hex(32)
    error = refusal(prefix + key + end)
    assert str(error) == f"Private key must be 32 bytes (64 hex chars), got {length} hex chars"
    assert error.__notes__ == [NOTE]
    assert not shows(error, key)


@pytest.mark.parametrize("key", ["", "1" * 63, "1" * 67, "g" + "1" * 63, "1" * 63 + "\n"])
def test_every_other_key_has_no_such_note(key: str) -> None:
    assert NOTE not in getattr(refusal(key), "__notes__", [])


def test_the_module_function_says_the_same() -> None:
    with pytest.raises(auth.InvalidKeyError) as caught:
        auth._validate_private_key(secrets.token_hex(32) + "\n")
    assert caught.value.__notes__ == [NOTE]

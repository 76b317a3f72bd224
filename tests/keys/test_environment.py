"""A key from an environment variable."""

from __future__ import annotations

import os
import secrets
import subprocess
import sys
from collections.abc import Callable

import pytest

from tessaline.auth import InvalidKeyError
from tessaline.keys import from_environment

from .discretion import shows

NAME = "TESSALINE_TEST_KEY"


@pytest.mark.parametrize("prefix", ["", "0x", "0X"])
@pytest.mark.parametrize("end", ["", "\n", "\r\n", "\r"])
def test_the_digits_are_given_back(monkeypatch: pytest.MonkeyPatch, prefix: str, end: str) -> None:
    key = secrets.token_hex(32)
    monkeypatch.setenv(NAME, prefix + key + end)
    assert (from_environment(NAME) == key) is True


def test_capitals_stay(monkeypatch: pytest.MonkeyPatch) -> None:
    key = secrets.token_hex(32).upper()
    monkeypatch.setenv(NAME, key)
    assert (from_environment(NAME) == key) is True


def test_the_variable_is_gone_for_this_process_and_its_children(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv(NAME, secrets.token_hex(32))
    from_environment(NAME)
    assert NAME not in os.environ
    looks = [sys.executable, "-c", f"import os; print({NAME!r} in os.environ)"]
    assert subprocess.run(looks, check=True, capture_output=True, text=True, timeout=60).stdout == "False\n"
    with pytest.raises(KeyError):
        from_environment(NAME)


def test_it_stays_when_asked_to(monkeypatch: pytest.MonkeyPatch) -> None:
    key = secrets.token_hex(32)
    monkeypatch.setenv(NAME, key)
    assert (from_environment(NAME, remove=False) == from_environment(NAME, False) == key) is True
    assert NAME in os.environ


@pytest.mark.parametrize("remove", [True, False])
def test_a_variable_that_is_not_set_is_named(monkeypatch: pytest.MonkeyPatch, remove: bool) -> None:
    monkeypatch.delenv(NAME, raising=False)
    with pytest.raises(KeyError) as caught:
        from_environment(NAME, remove)
    assert caught.value.args == (NAME,)
    assert caught.value.__notes__ == ["there is no environment variable of this name"]


@pytest.mark.parametrize("text", ["", "\n"])
def test_an_empty_one_is_called_empty(monkeypatch: pytest.MonkeyPatch, text: str) -> None:
    monkeypatch.setenv(NAME, text)
    with pytest.raises(InvalidKeyError) as caught:
        from_environment(NAME)
    assert str(caught.value) == "Private key must not be empty"
    assert caught.value.__notes__ == [f"the environment variable {NAME} is empty"]
    assert NAME not in os.environ


@pytest.mark.parametrize(
    "change", [lambda key: key[:-1], lambda key: key + "\n\n", lambda key: "g" + key[1:]]
)
def test_what_is_no_key_is_refused_removed_and_not_shown(
    monkeypatch: pytest.MonkeyPatch, change: Callable[[str], str]
) -> None:
    key = secrets.token_hex(32)
    monkeypatch.setenv(NAME, change(key))
    with pytest.raises(InvalidKeyError) as caught:
        from_environment(NAME)
    assert f"it was read from the environment variable {NAME}" in caught.value.__notes__
    assert not shows(caught.value, key[1:-1])
    assert NAME not in os.environ


def test_a_key_in_place_of_the_name_is_not_repeated() -> None:
    key = secrets.token_hex(32)
    with pytest.raises(ValueError) as caught:
        from_environment(key)
    assert str(caught.value) == "a key was given in place of the name of an environment variable"
    assert not any(key in str(told) for told in (caught.value, caught.value.args))

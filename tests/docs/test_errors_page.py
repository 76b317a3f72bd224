"""The page of errors names every class and reason that the code knows, and no other."""

from __future__ import annotations

import re

import pytest

from tessaline import auth

from .pages import DOCS, code_in, rows

pytestmark = pytest.mark.process

PAGE = DOCS / "errors.md"
SOURCES = DOCS.parent / "src/tessaline/auth"
PROFILE_REASONS = {"validation_failed", "rate_limited"}


def own_reasons() -> set[str]:
    """The reasons of the component's own errors."""
    text = (SOURCES / "constants.hpp").read_text()
    (body,) = re.findall(r"^namespace reason \{$(.*?)^\}", text, re.MULTILINE | re.DOTALL)
    return set(re.findall(r'= "(\w+)";', body))


def named(section: str) -> list[str]:
    """The names in the first column of a section's table."""
    return [code for row in rows(PAGE, section) for code in code_in(row[0])]


def test_every_class_has_its_section_and_row() -> None:
    classes = {
        name
        for name, value in vars(auth).items()
        if isinstance(value, type) and issubclass(value, Exception) and value.__module__ == auth.__name__
    }
    text = PAGE.read_text()
    assert classes == set(re.findall(r"^## (\w+Error)$", text, re.MULTILINE))
    assert classes == set(
        re.findall(r"^\| `(\w+)` \| [^|]*\| [^|]*\|$", text.partition("\n## ")[0], re.MULTILINE)
    )


def test_every_reason_has_one_row_and_no_other_has_any() -> None:
    assert len(own_reasons()) == 15
    reasons = named("AuthError")
    assert len(reasons) == len(set(reasons))
    assert set(reasons) == own_reasons() - PROFILE_REASONS
    assert sorted(named("ProfileError")) == sorted(PROFILE_REASONS)
    assert sorted(named("RegistrationError")) == sorted(auth._INVITE_REGISTRATION_REASONS)


def test_the_code_takes_its_reasons_from_one_place() -> None:
    # This ensures that the list above is complete.
    elsewhere = re.compile(r'\b(?:raise_auth_error|new_auth_error|refuse)\(\s*"')
    files = sorted(path for path in SOURCES.rglob("*.cpp") if path.parent.name != "http")
    assert files
    assert [path.name for path in files if elsewhere.search(path.read_text())] == []


@pytest.mark.parametrize(
    ("key", "told"),
    [
        ("", "Private key must not be empty"),
        ("ab" * 31, "Private key must be 32 bytes (64 hex chars), got N hex chars"),
        ("g" * 64, "Private key contains non-hex characters"),
        ("0" * 64, "Private key is not a valid secp256k1 scalar"),
    ],
)
def test_what_is_said_of_a_bad_key_is_told(key: str, told: str) -> None:
    with pytest.raises(auth.InvalidKeyError) as caught:
        auth.AuthManager(key, "https://service.example")
    assert str(caught.value) == told.replace("N", str(len(key)))
    assert told in named("InvalidKeyError")
    assert len(named("InvalidKeyError")) == 4


def test_the_texts_of_network_errors_are_told() -> None:
    prefixes = re.findall(
        r'network_error\("([^"]+)"', "".join(path.read_text() for path in SOURCES.rglob("*.cpp"))
    )
    assert sorted(f"{prefix}3 attempts" for prefix in prefixes) == sorted(named("NetworkError"))

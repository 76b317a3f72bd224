"""The page of errors and `tessaline.errors` describe the same errors in the same way."""

from __future__ import annotations

import binascii
import http.client
import ssl
from collections.abc import Iterator
from typing import get_args

import pytest

from tessaline import auth, errors
from tests.docs.pages import DOCS, code_in, rows

pytestmark = pytest.mark.process

PAGE = DOCS / "errors.md"
SECTIONS = [
    "AuthError",
    "RegistrationError",
    "ProfileError",
    "NetworkError",
    "InvalidKeyError",
    "Other exceptions",
]
ANY_OTHER = "any other text"
OTHERS: dict[str, BaseException] = {
    "ValueError": ValueError("no"),
    "TypeError": TypeError("no"),
    "KeyError": KeyError("token"),
    "binascii.Error": binascii.Error("no"),
    "ssl.SSLCertVerificationError": ssl.SSLCertVerificationError(1, "no"),
    "ssl.SSLError": ssl.SSLError(1, "no"),
    "http.client.BadStatusLine": http.client.BadStatusLine("no"),
    "OSError": OSError(24, "no"),
    "MemoryError": MemoryError(),
    "RuntimeError": RuntimeError("no"),
    "KeyboardInterrupt": KeyboardInterrupt(),
}
# Where an exception comes from, as the page calls it.
OF_A_LOGIN = ("authenticate()", "the same", "anything")
OF_THE_PROCESS = {"MemoryError", "RuntimeError", "KeyboardInterrupt"}


def made(section: str, name: str) -> BaseException:
    """The error that a row describes."""
    if section == "Other exceptions":
        return OTHERS[name]
    error: BaseException = getattr(auth, section)(name)
    return error


def told() -> Iterator[tuple[str, str, str]]:
    """The section, the name and whether it is permanent, for each name in a first column."""
    for section in SECTIONS:
        for first, final, *_ in rows(PAGE, section):
            for name in code_in(first) or [first]:
                yield section, name, final


TOLD = list(told())


@pytest.mark.parametrize(("section", "name", "final"), TOLD)
def test_what_is_called_final_is_final(section: str, name: str, final: str) -> None:
    assert final in ("yes", "no")
    assert errors.is_final(made(section, name)) == (final == "yes")


def named(section: str, final: str | None = None) -> set[str]:
    return {name for there, name, said in TOLD if there == section and final in (None, said)}


def test_the_reasons_are_the_same() -> None:
    assert named("AuthError") == {*get_args(errors.Reason), ANY_OTHER}
    assert named("ProfileError") == set(get_args(errors.ProfileReason))
    assert named("RegistrationError") == set(get_args(errors.RegistrationReason))


def test_the_final_ones_are_the_same() -> None:
    assert named("AuthError", "yes") == errors.FINAL_REASONS
    assert named("RegistrationError", "no") == set()


def test_every_other_exception_is_told_of() -> None:
    assert named("Other exceptions") == set(OTHERS)


def test_every_table_tells() -> None:
    headers = [line for line in PAGE.read_text().splitlines() if line.startswith(("| reason |", "| text |"))]
    headers += [line for line in PAGE.read_text().splitlines() if line.startswith("| exception |")]
    assert len(headers) == len(SECTIONS)
    assert all(header.split(" | ")[1] == "permanent" for header in headers)


def test_what_a_login_raises_can_be_excepted_by_one_name() -> None:
    of_a_login = {
        name
        for first, _, source, *_ in rows(PAGE, "Other exceptions")
        for name in code_in(first)
        if any(word in source for word in OF_A_LOGIN) and name not in OF_THE_PROCESS
    }
    assert {"ssl.SSLError", "OSError", "http.client.BadStatusLine", "KeyError", "binascii.Error"} < of_a_login
    kinds = [type(OTHERS[name]) for name in of_a_login]
    kinds += [auth.AuthError, auth.RegistrationError, auth.NetworkError]
    assert [kind for kind in kinds if not issubclass(kind, errors.LOGIN_ERRORS)] == []
    # And all of them are needed.
    assert [one for one in errors.LOGIN_ERRORS if not any(issubclass(kind, one) for kind in kinds)] == []


def test_what_tells_of_the_process_is_not_among_them() -> None:
    for name in OF_THE_PROCESS:
        assert not isinstance(OTHERS[name], errors.LOGIN_ERRORS)
    assert not issubclass(auth.InvalidKeyError, errors.LOGIN_ERRORS)


def test_the_names_are_told() -> None:
    table = rows(PAGE, "Transient and permanent errors")
    names = {code.partition("(")[0] for row in table for code in code_in(row[0])}
    functions = {name for name in errors.__all__ if not name.isupper()}
    assert functions | {"FINAL_REASONS", "LOGIN_ERRORS"} < names
    assert names <= set(errors.__all__)

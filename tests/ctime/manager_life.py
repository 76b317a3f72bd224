"""Runs under valgrind: a manager's life with a key that the checker considers secret.

Prints a line for each step: kind, name, bytes marked secret, reports.
"""

from __future__ import annotations

import ctypes
import sys
from collections.abc import Callable
from typing import Any

from tessaline import auth
from tests.shared.good_service import GoodService, token_of

DIGITS = "A123456789abcdef0fEDCBa9876543210123456789ABCDEF0fedcbA98765432f"
ZERO = "0" * 64
URL = "https://auth.example.test"

MARKS = ctypes.CDLL(sys.argv[1])
for function in (MARKS.ctime_mark_secret, MARKS.ctime_mark_public, MARKS.ctime_count_secret):
    function.argtypes = [ctypes.c_void_p, ctypes.c_size_t]
    function.restype = None
MARKS.ctime_count_secret.restype = ctypes.c_size_t
MARKS.ctime_reports.restype = ctypes.c_uint
MARKS.ctime_is_watched.restype = ctypes.c_bool

# Where the interpreter stores the characters of an ASCII text, which it exposes without copying.
characters_of = ctypes.pythonapi.PyUnicode_AsUTF8
characters_of.argtypes = [ctypes.py_object]
characters_of.restype = ctypes.c_void_p

marked = 0


def secret(text: str) -> str:
    """A new text with these characters, marked."""
    global marked
    made = "".join([text[:1], text[1:]])
    assert made is not text
    MARKS.ctime_mark_secret(characters_of(made), len(made))
    marked += len(made)
    return made


def made_public(text: str) -> str:
    """The text, which must be a secret from end to end, as one that may be read."""
    assert MARKS.ctime_count_secret(characters_of(text), len(text)) == len(text)
    MARKS.ctime_mark_public(characters_of(text), len(text))
    return text


SERVICE = GoodService()


def manager(text: str = DIGITS) -> Any:
    return auth.AuthManager(secret(text), URL, clock=lambda: 1000.0, _transport=SERVICE)


def construct() -> None:
    with manager() as made:
        assert len(made.get_wallet_address()) == 42


def construct_prefixed() -> None:
    with manager("0x" + DIGITS) as made:
        assert made_public(made._private_key) == DIGITS


def read_the_field() -> None:
    with manager() as made:
        assert made_public(made._private_key) == DIGITS


def write_the_field() -> None:
    with manager() as made:
        made._private_key = secret(DIGITS.lower())
        assert made_public(made._private_key) == DIGITS.lower()
        made._private_key = None
        assert made._private_key is None


def validate() -> None:
    assert made_public(auth._validate_private_key(secret("0x" + DIGITS))) == DIGITS


def log_in() -> None:
    with manager() as made:
        made.authenticate()
        assert made.get_token() == token_of(made.get_wallet_address())
    assert len(SERVICE.signatures) == 1


def refuse() -> None:
    for text in (ZERO, DIGITS[:-1] + "g", DIGITS[:-1]):
        try:
            manager(text)
        except auth.InvalidKeyError:
            continue
        raise AssertionError("a key that is none was taken")


# The interpreter's own accesses to the text, which the component does not cause.


def fromhex() -> None:
    bytes.fromhex(secret(DIGITS))


def number() -> None:
    int(secret(DIGITS), 16)


def comparison() -> None:
    assert secret(DIGITS) != DIGITS[:-1] + "g"


CHECKS = (construct, construct_prefixed, read_the_field, write_the_field, validate, log_in, refuse)
CONTROLS = (fromhex, number, comparison)


def watch(kind: str, steps: tuple[Callable[[], None], ...]) -> None:
    for step in steps:
        marked_before, reports_before = marked, MARKS.ctime_reports()
        step()
        reports = MARKS.ctime_reports() - reports_before
        print(kind, step.__name__, marked - marked_before, reports, sep="\t", flush=True)


assert MARKS.ctime_is_watched()
watch("check", CHECKS)
watch("control", CONTROLS)

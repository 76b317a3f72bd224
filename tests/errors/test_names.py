"""Names, types and classes of `tessaline.errors` are consistent with each other and with the component's."""

from __future__ import annotations

import re
import ssl
import subprocess
import sys
from pathlib import Path
from typing import get_args

import pytest

from tessaline import auth, errors

CONSTANTS = Path(__file__).resolve().parents[2] / "src/tessaline/auth/constants.hpp"
REASONS = set(get_args(errors.Reason))
PROFILE = set(get_args(errors.ProfileReason))
REGISTRATION = set(get_args(errors.RegistrationReason))


def constants() -> dict[str, str]:
    return {name: value for name, value in vars(errors).items() if name.isupper() and isinstance(value, str)}


def test_every_reason_is_a_constant_of_its_own_name_and_no_other_is() -> None:
    assert {name: value.upper() for name, value in constants().items()} == {
        name: name for name in constants()
    }
    assert set(constants().values()) == REASONS | PROFILE | REGISTRATION
    assert len(constants()) == len(REASONS) + len(PROFILE) + len(REGISTRATION)


def test_they_are_those_of_the_component() -> None:
    text = CONSTANTS.read_text()
    (body,) = re.findall(r"^namespace reason \{$(.*?)^\}", text, re.MULTILINE | re.DOTALL)
    assert set(re.findall(r'= "(\w+)";', body)) == REASONS | PROFILE
    assert REGISTRATION == auth._INVITE_REGISTRATION_REASONS


def test_the_final_ones_are_reasons() -> None:
    assert errors.FINAL_REASONS < REASONS


def test_what_is_public_is_listed() -> None:
    shown = {*constants(), "FINAL_REASONS", "LOGIN_ERRORS", "Reason", "ProfileReason", "RegistrationReason"}
    assert set(errors.__all__) == shown | {"is_final", "reason_of"}
    assert len(set(errors.__all__)) == len(errors.__all__)


@pytest.mark.parametrize("reason", sorted(REASONS))
def test_the_reason_of_an_auth_error(reason: str) -> None:
    assert errors.reason_of(auth.AuthError(reason)) == reason
    assert errors.is_final(auth.AuthError(reason)) == (reason in errors.FINAL_REASONS)


@pytest.mark.parametrize(
    "error",
    [
        auth.AuthError("Server unreachable after 3 attempts"),
        auth.AuthError("invite_required"),
        auth.ProfileError("rate_limited", retry_after=5),
        auth.RegistrationError("unauthorized"),
        ValueError("unauthorized"),
    ],
    ids=repr,
)
def test_no_other_error_has_one(error: Exception) -> None:
    assert errors.reason_of(error) is None


def test_a_text_that_is_no_reason_may_pass_away() -> None:
    assert not errors.is_final(auth.AuthError("Server unreachable after 3 attempts"))
    assert not errors.is_final(auth.AuthError("certificate of service.example:443 is not acceptable"))


@pytest.mark.parametrize("kind", [ssl.SSLError, ssl.SSLCertVerificationError, ssl.SSLEOFError])
def test_tls_is_final_though_it_is_an_os_error(kind: type[ssl.SSLError]) -> None:
    assert issubclass(kind, OSError)
    assert errors.is_final(kind(1, "no"))


@pytest.mark.parametrize("error", [KeyboardInterrupt(), SystemExit(), GeneratorExit()], ids=repr)
def test_who_wants_to_end_is_not_kept(error: BaseException) -> None:
    assert errors.is_final(error)


def test_it_brings_nothing_that_is_optional_and_starts_nothing() -> None:
    program = """
import os, sys, threading
before = sorted(os.listdir("/proc/self/fd"))
import tessaline.errors
optional = {"requests", "httpx", "aiohttp", "grpc", "eth_account", "tessaline.keys", "tessaline.keeper"}
print(optional & set(sys.modules), threading.active_count(), sorted(os.listdir("/proc/self/fd")) == before)
"""
    done = subprocess.run(
        [sys.executable, "-c", program], check=True, capture_output=True, text=True, timeout=60
    )
    assert done.stdout == "set() 1 True\n"

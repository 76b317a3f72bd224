"""The module's constants, reason sets and error types."""

from __future__ import annotations

import gc
import itertools
import re
import sys
import threading
import weakref
from typing import Any

import pytest

from tessaline import auth

from .helpers.server import CHALLENGE

CONSTANTS: dict[str, Any] = {
    "_SECP256K1_ORDER": 0xFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFEBAAEDCE6AF48A03BBFD25E8CD0364141,
    "_UNINITIALIZED": "UNINITIALIZED",
    "_AUTHENTICATING": "AUTHENTICATING",
    "_AUTHENTICATED": "AUTHENTICATED",
    "_RE_AUTHENTICATING": "RE_AUTHENTICATING",
    "_CLOSED": "CLOSED",
    "_BACKOFF_BASE": 1,
    "_BACKOFF_CAP": 60,
    "_AUTH_HTTP_TIMEOUT_DEFAULT": 30.0,
    "_AUTH_FLOW_HTTP_MAX_ATTEMPTS": 3,
    "_AUTH_FLOW_CHALLENGE_MAX_CYCLES": 3,
    "_REFRESH_RATIO": 0.8,
    "_TOKEN_LIFETIME": 86400,
    "_DISPLAY_NAME_ERR": (
        "Display name must be 3-32 characters: letters, numbers, spaces, hyphens, underscores"
    ),
    "_INVITE_REGISTRATION_REASONS": frozenset(
        {"invite_invalid", "invite_already_redeemed", "invite_revoked", "invite_required"}
    ),
    "_PERMANENT_REASONS": frozenset({"signature_mismatch", "invalid_address"}),
    "_REAUTH_MODE_PROACTIVE": "PROACTIVE",
    "_REAUTH_MODE_ERA_CHANGE": "ERA_CHANGE",
    "_active_auth_manager": None,
}

ERRORS = {
    "InvalidKeyError": "Raised when private key is invalid (format, length, or secp256k1 scalar).",
    "AuthError": "Raised on authentication failures.",
    "RegistrationError": "Raised when the server rejects a registration request.",
    "ProfileError": "Raised on display name/profile failures.",
    "NetworkError": "Raised when network is unreachable after retries.",
}


@pytest.mark.parametrize("name", CONSTANTS)
def test_constant_has_its_value_and_type(name: str) -> None:
    value = getattr(auth, name)
    assert value == CONSTANTS[name]
    assert type(value) is type(CONSTANTS[name])


@pytest.mark.parametrize(
    "name", ["_UNINITIALIZED", "_AUTHENTICATING", "_AUTHENTICATED", "_RE_AUTHENTICATING", "_CLOSED"]
)
def test_state_value_is_its_own_name(name: str) -> None:
    assert getattr(auth, name) == name[1:]


def test_display_name_pattern_is_compiled_once_from_the_stated_text() -> None:
    assert isinstance(auth._DISPLAY_NAME_RE, re.Pattern)
    assert auth._DISPLAY_NAME_RE.pattern == r"^[a-zA-Z0-9_\- ]+$"
    assert auth._DISPLAY_NAME_RE.flags == re.compile("x").flags


@pytest.mark.parametrize("text", ["a", "Z9_- ", "plain name", "___", "- -"])
def test_display_name_pattern_matches_allowed_characters(text: str) -> None:
    assert auth._DISPLAY_NAME_RE.match(text)


@pytest.mark.parametrize("text", ["", "a!", "é", "tab\there", "a.b", "٣"])
def test_display_name_pattern_refuses_other_characters(text: str) -> None:
    assert not auth._DISPLAY_NAME_RE.match(text)


def test_invite_required_is_an_invite_reason() -> None:
    assert "invite_required" in auth._INVITE_REGISTRATION_REASONS


def test_invalid_address_is_permanent_and_not_an_invite_reason() -> None:
    assert "invalid_address" in auth._PERMANENT_REASONS
    assert "invalid_address" not in auth._INVITE_REGISTRATION_REASONS


def test_the_active_manager_slot_is_guarded_by_a_plain_lock() -> None:
    assert type(auth._active_auth_manager_lock) is type(threading.Lock())
    assert not auth._active_auth_manager_lock.locked()


@pytest.mark.parametrize("name", ERRORS)
def test_error_type_stands_directly_under_exception(name: str) -> None:
    error = getattr(auth, name)
    assert error.__bases__ == (Exception,)
    assert error.__name__ == error.__qualname__ == name
    assert error.__module__ == "tessaline.auth"


@pytest.mark.parametrize("name", ERRORS)
def test_error_type_docstring_begins_as_stated(name: str) -> None:
    assert getattr(auth, name).__doc__.splitlines()[0] == ERRORS[name]


@pytest.mark.parametrize(("one", "other"), list(itertools.permutations(ERRORS, 2)))
def test_error_types_are_siblings(one: str, other: str) -> None:
    assert not issubclass(getattr(auth, one), getattr(auth, other))


def test_except_auth_error_does_not_catch_a_network_error_of_the_retry_layer(
    manager: Any, server: Any
) -> None:
    server.always(CHALLENGE, ConnectionRefusedError("nobody listens"))
    manager._wait_with_clock = lambda seconds: None
    with pytest.raises(auth.NetworkError) as caught:
        try:
            manager.authenticate()
        except auth.AuthError as error:
            pytest.fail(f"{error!r} was caught as an AuthError")
    assert not isinstance(caught.value, auth.AuthError)


def test_auth_error_by_keyword_has_reason_and_text_token_expired() -> None:
    error = auth.AuthError(reason="token_expired")
    assert error.reason == "token_expired"
    assert str(error) == "token_expired"
    assert error.args == ("token_expired",)


def test_auth_error_by_position_is_the_same() -> None:
    error = auth.AuthError("token_expired")
    assert (error.reason, str(error), error.args) == ("token_expired", "token_expired", ("token_expired",))


def test_auth_error_keeps_the_very_reason_object() -> None:
    reason = "".join(["not", "_", "interned"])
    assert auth.AuthError(reason=reason).reason is reason


@pytest.mark.parametrize(
    ("args", "kwargs"),
    [((), {}), (("a", "b"), {}), (("a",), {"reason": "b"}), ((), {"cause": "a"}), (("a",), {"extra": 1})],
)
def test_auth_error_takes_exactly_one_reason(args: tuple[Any, ...], kwargs: dict[str, Any]) -> None:
    with pytest.raises(TypeError):
        auth.AuthError(*args, **kwargs)


def test_auth_error_can_be_subclassed() -> None:
    class Special(auth.AuthError):
        def __init__(self, code: int) -> None:
            super().__init__(reason="special")
            self.code = code

    error = Special(7)
    assert (error.reason, str(error), error.code) == ("special", "special", 7)
    with pytest.raises(auth.AuthError):
        raise error


def test_registration_error_carries_its_only_value_and_no_reason() -> None:
    error = auth.RegistrationError("invite_invalid")
    assert error.args == ("invite_invalid",)
    assert str(error) == "invite_invalid"
    assert not hasattr(error, "reason")


@pytest.mark.parametrize("name", ["InvalidKeyError", "NetworkError", "RegistrationError"])
def test_message_errors_are_plain_exceptions(name: str) -> None:
    error = getattr(auth, name)("one text")
    assert error.args == ("one text",)
    assert str(error) == "one text"
    assert not hasattr(error, "reason")


def test_profile_error_with_validation_failed_has_both_reason_and_message() -> None:
    error = auth.ProfileError("validation_failed", message="too short")
    assert error.reason == "validation_failed"
    assert error.message == "too short"
    assert str(error) == "validation_failed"
    assert error.args == ("validation_failed",)


def test_profile_error_with_retry_after_60_has_that_attribute() -> None:
    error = auth.ProfileError(reason="rate_limited", retry_after=60)
    assert error.reason == "rate_limited"
    assert error.retry_after == 60


def test_profile_error_without_extras_has_only_its_reason() -> None:
    error = auth.ProfileError("rate_limited")
    assert vars(error) == {"reason": "rate_limited"}


def test_profile_error_copies_every_extra_into_its_attribute_dictionary() -> None:
    extras = {"message": "m", "retry_after": 3, "status": None, "args": "shadow"}
    error = auth.ProfileError("r", **extras)
    assert vars(error) == {"reason": "r", **extras}
    assert error.args == ("r",)


def test_profile_error_needs_a_reason() -> None:
    with pytest.raises(TypeError):
        auth.ProfileError()  # type: ignore[call-arg]
    with pytest.raises(TypeError):
        auth.ProfileError(message="m")  # type: ignore[call-arg]
    with pytest.raises(TypeError):
        auth.ProfileError("a", "b")  # type: ignore[call-arg]


@pytest.mark.parametrize("name", ERRORS)
def test_error_takes_weak_references_as_an_error_of_python_code_does(name: str) -> None:
    class Other(Exception):
        own: object

    error = getattr(auth, name)("r")
    error.own = error
    gone: list[object] = []
    seen = weakref.ref(error, gone.append)
    assert seen() is error
    plain = Other("r")
    plain.own = plain
    assert gc.is_tracked(error)
    assert sys.getsizeof(error) == sys.getsizeof(plain)
    del error
    gc.collect()
    assert (seen(), gone) == (None, [seen])


@pytest.mark.parametrize("name", ERRORS)
def test_subclass_beside_another_error_takes_weak_references(name: str) -> None:
    class Both(getattr(auth, name), OSError):  # type: ignore[misc]
        pass

    error = Both("r")
    assert weakref.ref(error)() is error


@pytest.mark.parametrize("name", ERRORS)
def test_error_keeps_attributes_set_later(name: str) -> None:
    error = getattr(auth, name)("text")
    error.note_of_the_host = 5
    assert vars(error)["note_of_the_host"] == 5

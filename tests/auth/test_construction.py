"""The constructor: what it validates, what it stores, and its side effects."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from typing import Any

import pytest
from eth_account import Account

from tessaline import auth

from .helpers.managers import ADDRESS, EVENT_FIELDS, KEY, PLAIN_FIELDS, build
from .helpers.server import BASE, FakeServer

ORDER = 0xFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFEBAAEDCE6AF48A03BBFD25E8CD0364141

INITIAL: dict[str, Any] = {
    "_wallet_address": ADDRESS,
    "_private_key": KEY,
    "_server_url": BASE,
    "_invite_code": None,
    "_register_wallet": True,
    "_uses_injected_clock": False,
    "_state": "UNINITIALIZED",
    "_token": None,
    "_token_iat": None,
    "_token_expiry": None,
    "_wallet_secret": None,
    "_auth_time": None,
    "_auth_event": None,
    "_auth_error": None,
    "_refresh_thread": None,
    "_refresh_at": None,
    "_permanent_refresh_error": False,
    "_in_transient_backoff": False,
    "_reauth_mode": None,
    "_pending_era_number": None,
    "_registration_acknowledged": False,
}


@pytest.mark.parametrize("name", INITIAL)
def test_field_begins_with_its_initial_value(name: str) -> None:
    value = getattr(auth.AuthManager(KEY, BASE), name)
    assert value == INITIAL[name]
    assert type(value) is type(INITIAL[name])


def test_every_field_is_there() -> None:
    manager = auth.AuthManager(KEY, BASE)
    for name in PLAIN_FIELDS:
        getattr(manager, name)


@pytest.mark.parametrize("name", EVENT_FIELDS)
def test_event_field_is_a_new_clear_event_of_the_host(name: str) -> None:
    one, other = auth.AuthManager(KEY, BASE), auth.AuthManager(KEY, BASE)
    event = getattr(one, name)
    assert type(event) is threading.Event
    assert not event.is_set()
    assert event is not getattr(other, name)


def test_the_events_are_distinct() -> None:
    manager = auth.AuthManager(KEY, BASE)
    assert len({id(getattr(manager, name)) for name in EVENT_FIELDS}) == len(EVENT_FIELDS)


def test_the_lock_is_a_new_plain_lock_of_the_host() -> None:
    one, other = auth.AuthManager(KEY, BASE), auth.AuthManager(KEY, BASE)
    assert type(one._lock) is type(threading.Lock())
    assert not one._lock.locked()
    assert one._lock is not other._lock


def test_right_after_construction_there_is_no_expiry_and_no_permanent_error() -> None:
    manager = auth.AuthManager(KEY, BASE)
    assert manager._token_expiry is None
    assert manager._permanent_refresh_error is False


# Address


PUBLISHED = [
    ("1".zfill(64), "0x7e5f4552091a69125d5dfcb7b8c2659029395bdf"),
    ("46" * 32, "0x9d8a62f656a8d1615c1294fd71e9cfb3e4855a4f"),
    (
        "4c0883a69102937d6231471b5dbb6204fe5129617082792ae468d01a3f362318",
        "0x2c7536e3605d9c16a7a3d7b1898e529396a65c23",
    ),
]


@pytest.mark.parametrize(("key", "address"), PUBLISHED)
def test_address_of_a_published_key(key: str, address: str) -> None:
    assert auth.AuthManager(key, BASE)._wallet_address == address


def test_the_key_is_what_the_modules_function_makes_of_it(monkeypatch: pytest.MonkeyPatch) -> None:
    (first, _), (second, address) = PUBLISHED[:2]
    seen: list[Any] = []
    monkeypatch.setattr(auth, "_validate_private_key", lambda key: seen.append(key) or second)
    manager = auth.AuthManager(first, BASE)
    assert seen == [first]
    assert manager._wallet_address == address
    assert manager._private_key == second


def test_address_with_mixed_case_checksum_letters_is_stored_in_lower_case() -> None:
    checksummed = Account.from_key(bytes.fromhex(KEY)).address
    assert checksummed != checksummed.lower()
    assert auth.AuthManager(KEY, BASE)._wallet_address == checksummed.lower()


@pytest.mark.parametrize("value", [1, 2, 3, ORDER - 1, ORDER - 2, 2**128, 2**255])
def test_address_at_the_ends_of_the_key_range(value: int) -> None:
    key = f"{value:064x}"
    assert auth.AuthManager(key, BASE)._wallet_address == Account.from_key(key).address.lower()


@pytest.mark.parametrize("prefix", ["", "0x", "0X"])
def test_key_prefix_makes_no_difference(prefix: str) -> None:
    manager = auth.AuthManager(prefix + KEY, BASE)
    assert manager._private_key == KEY
    assert manager._wallet_address == ADDRESS


def test_key_in_upper_case_has_the_same_address_and_is_stored_as_given() -> None:
    manager = auth.AuthManager("0x" + KEY.upper(), BASE)
    assert manager._wallet_address == ADDRESS
    assert manager._private_key == KEY.upper()


# Arguments


@pytest.mark.parametrize("slashes", ["", "/", "///"])
def test_server_url_that_ends_in_slashes_is_stored_without_any(slashes: str) -> None:
    assert auth.AuthManager(KEY, "https://h.example.test/base" + slashes)._server_url == (
        "https://h.example.test/base"
    )


def test_slashes_are_stripped_from_what_the_policy_returned(monkeypatch: pytest.MonkeyPatch) -> None:
    import tessaline._transport_security as policy

    seen: list[str] = []

    def validate(url: str) -> str:
        seen.append(url)
        return "https://other.example.test//"

    monkeypatch.setattr(policy, "validate_bearer_transport_url", validate)
    manager = auth.AuthManager(KEY, "https://h.example.test//")
    assert seen == ["https://h.example.test//"]
    assert manager._server_url == "https://other.example.test"


@pytest.mark.parametrize(("code", "stored"), [(None, None), ("  ", None), (" AbC ", "abc"), (17, "17")])
def test_invite_code_is_stored_in_canonical_form(code: Any, stored: str | None) -> None:
    assert auth.AuthManager(KEY, BASE, invite_code=code)._invite_code == stored


@pytest.mark.parametrize(
    ("value", "stored"), [(0, False), (1, True), ("", False), ("no", True), (None, False), ([], False)]
)
def test_register_wallet_is_stored_as_its_truth_value(value: Any, stored: bool) -> None:
    assert auth.AuthManager(KEY, BASE, register_wallet=value)._register_wallet is stored


def test_register_wallet_0_is_stored_as_false() -> None:
    assert auth.AuthManager(KEY, BASE, register_wallet=0)._register_wallet is False  # type: ignore[arg-type]


def test_failing_truth_value_passes_through() -> None:
    class Undecided:
        def __bool__(self) -> bool:
            raise LookupError("undecided")

    with pytest.raises(LookupError, match="undecided"):
        auth.AuthManager(KEY, BASE, register_wallet=Undecided())  # type: ignore[arg-type]


def test_clock_none_means_the_wall_clock_and_not_injected() -> None:
    manager = auth.AuthManager(KEY, BASE, clock=None)
    assert manager._uses_injected_clock is False
    assert manager._clock is time.time


def test_any_clock_object_counts_as_injected() -> None:
    class Falsy:
        def __bool__(self) -> bool:
            return False

        def __call__(self) -> float:
            return 0.0

    for clock in (lambda: 5.0, Falsy(), time.time):
        manager = auth.AuthManager(KEY, BASE, clock=clock)
        assert manager._uses_injected_clock is True
        assert manager._clock is clock


def test_default_transport_is_the_module_function_itself() -> None:
    assert auth.AuthManager(KEY, BASE)._transport is auth._default_http_transport
    assert auth.AuthManager(KEY, BASE, _transport=None)._transport is auth._default_http_transport


def test_a_module_name_that_was_deleted_is_not_defined(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.delattr(auth, "_default_http_transport")
    with pytest.raises(NameError, match=r"^name '_default_http_transport' is not defined$"):
        auth.AuthManager(KEY, BASE)


def test_default_transport_is_looked_up_in_the_module(monkeypatch: pytest.MonkeyPatch) -> None:
    replaced = object()
    monkeypatch.setattr(auth, "_default_http_transport", replaced)
    assert auth.AuthManager(KEY, BASE)._transport is replaced


def test_given_transport_is_kept_even_when_false() -> None:
    transport: list[Any] = []
    assert auth.AuthManager(KEY, BASE, _transport=transport)._transport is transport  # type: ignore[arg-type, comparison-overlap]


def test_first_two_arguments_may_be_keywords() -> None:
    manager = auth.AuthManager(server_url=BASE, private_key=KEY)
    assert (manager._server_url, manager._wallet_address) == (BASE, ADDRESS)


@pytest.mark.parametrize(
    ("args", "kwargs"),
    [
        ((), {}),
        ((KEY,), {}),
        ((KEY, BASE, "code"), {}),
        ((KEY, BASE, None, True, None, None), {}),
        ((KEY, BASE), {"invite": KEY}),
        ((KEY, BASE), {"transport": KEY}),
        ((KEY, BASE), {"private_key": KEY}),
        ((), {"private_key": KEY}),
        ((), {"server_url": BASE}),
        ((BASE,), {"private_key": KEY}),
    ],
)
def test_wrong_arguments_are_a_type_error_without_the_key(
    args: tuple[Any, ...], kwargs: dict[str, Any]
) -> None:
    with pytest.raises(TypeError) as caught:
        auth.AuthManager(*args, **kwargs)
    assert KEY not in str(caught.value)
    assert BASE not in str(caught.value)
    assert "AuthManager" in str(caught.value)


# Order and failures


def test_the_key_is_checked_before_the_url() -> None:
    with pytest.raises(auth.InvalidKeyError):
        auth.AuthManager("", "")


def test_the_url_is_checked_before_the_invite_code() -> None:
    class Code:
        def __str__(self) -> str:
            raise RuntimeError("no text")

    with pytest.raises(ValueError, match="server_url must not be empty"):
        auth.AuthManager(KEY, "", invite_code=Code())  # type: ignore[arg-type]
    with pytest.raises(RuntimeError, match="no text"):
        auth.AuthManager(KEY, BASE, invite_code=Code())  # type: ignore[arg-type]


def test_construction_makes_no_request_and_starts_no_thread_and_reads_no_time() -> None:
    server, before = FakeServer(), threading.enumerate()
    readings: list[int] = []

    def clock() -> float:
        readings.append(1)
        return 0.0

    build(server, clock)
    assert server.calls == []
    assert threading.enumerate() == before
    assert readings == []


def test_a_refused_key_is_not_in_the_error() -> None:
    bad = "g" + KEY[1:]
    with pytest.raises(auth.InvalidKeyError) as caught:
        auth.AuthManager(bad, BASE)
    assert KEY[1:] not in f"{caught.value!r}{caught.value}"


def test_a_second_initialisation_starts_afresh() -> None:
    manager = build(key=KEY)
    manager._state = "AUTHENTICATED"
    manager._token = "old"
    manager.__init__("1".zfill(64), "https://other.example.test")
    assert manager._wallet_address == "0x7e5f4552091a69125d5dfcb7b8c2659029395bdf"
    assert manager._private_key == "1".zfill(64)
    assert manager._state == "UNINITIALIZED"
    assert manager._token is None
    assert manager._transport is auth._default_http_transport


# Fields


@pytest.mark.parametrize("name", [name for name in PLAIN_FIELDS if name != "_private_key"])
def test_field_is_readable_writable_and_deletable(name: str) -> None:
    manager = build()
    value = object()
    setattr(manager, name, value)
    assert getattr(manager, name) is value
    delattr(manager, name)
    with pytest.raises(AttributeError):
        getattr(manager, name)
    setattr(manager, name, None)
    assert getattr(manager, name) is None


def test_private_key_can_be_replaced_and_dropped() -> None:
    manager = build()
    manager._private_key = "1".zfill(64)
    assert manager._private_key == "1".zfill(64)
    manager._private_key = None
    assert manager._private_key is None


def test_further_attributes_may_be_set() -> None:
    manager = build()
    manager.note_of_the_host = [1]
    assert manager.note_of_the_host == [1]
    assert vars(manager)["note_of_the_host"] == [1]


def test_repr_shows_nothing_secret(make_manager: Callable[..., Any]) -> None:
    manager = make_manager(invite_code="very-private-invite")
    manager.authenticate()
    text = repr(manager)
    assert "AuthManager" in text
    for secret in (KEY, manager._token, manager._wallet_secret.hex(), repr(manager._wallet_secret)):
        assert secret not in text
        assert secret[4:24] not in text

"""Reading claims of a token without verifying it."""

from __future__ import annotations

import base64
import json
from typing import Any

import pytest
from hypothesis import example, given, settings
from hypothesis import strategies as st

from tessaline import auth

from .helpers.managers import ADDRESS, reason_of
from .helpers.tokens import b64url, issued, with_payload, with_payload_bytes, with_payload_text

PROPERTY = settings(deadline=None, database=None, derandomize=True, max_examples=200)


def failure(call: Any, *args: Any) -> str:
    with pytest.raises(auth.AuthError) as caught:
        call(*args)
    return reason_of(caught.value)


def expected_payload(token: Any) -> dict[str, Any] | None:
    """The payload by Python's own decoders; None if it must be refused."""
    try:
        segments = token.split(".")
        if len(segments) != 3:
            return None
        padded = segments[1] + "=" * (-len(segments[1]) % 4)
        value = json.loads(base64.urlsafe_b64decode(padded.encode("ascii")))
    except Exception:
        return None
    return value if isinstance(value, dict) else None


# Payload


def test_a_signed_token_gives_its_claims() -> None:
    token = issued(ADDRESS, 7, exp=4_000_000_000, extra={"deep": [1, None]})
    assert auth._decode_jwt_payload_unverified(token) == {
        "sub": ADDRESS,
        "era_number": 7,
        "exp": 4_000_000_000,
        "extra": {"deep": [1, None]},
    }


def test_the_signature_and_the_header_are_not_looked_at() -> None:
    assert auth._decode_jwt_payload_unverified("?." + b64url(b'{"a": 1}') + ".!") == {"a": 1}


@pytest.mark.parametrize(
    ("payload_bytes", "length", "padding"),
    [(16, 22, 2), (17, 23, 1), (18, 24, 0), (19, 26, 2), (20, 27, 1)],
)
def test_payload_segment_of_length_22_gets_2_padding_signs_and_of_length_24_none(
    payload_bytes: int, length: int, padding: int
) -> None:
    payload = b'{"k": "' + b"x" * (payload_bytes - 9) + b'"}'
    segment = b64url(payload)
    assert len(segment) == length
    assert -length % 4 == padding
    assert auth._decode_jwt_payload_unverified(f"h.{segment}.s") == {"k": "x" * (payload_bytes - 9)}


def test_payload_segment_of_length_21_gets_3_padding_signs_which_no_base64_has() -> None:
    segment = b64url(b'{"k": "xxxxxxx"}')[:21]
    assert failure(auth._decode_jwt_payload_unverified, f"h.{segment}.s") == "wallet_mismatch"


def test_payload_in_the_url_safe_alphabet_is_read() -> None:
    token = with_payload_text('{"k": "\u00bf\u00bf\u00bf~~~???>>>"}')
    assert "-" in token or "_" in token
    assert auth._decode_jwt_payload_unverified(token) == {"k": "\u00bf\u00bf\u00bf~~~???>>>"}


@pytest.mark.parametrize("token", ["", "one", "a.b", "a.b.c.d", "....", "."])
def test_token_without_exactly_three_segments_is_a_wallet_mismatch(token: str) -> None:
    assert failure(auth._decode_jwt_payload_unverified, token) == "wallet_mismatch"


def test_token_with_four_segments_is_refused_even_with_a_good_payload() -> None:
    assert failure(auth._decode_jwt_payload_unverified, issued(ADDRESS) + ".x") == "wallet_mismatch"


@pytest.mark.parametrize(
    "segment",
    [
        "",
        "a",
        "é",
        "\ud800",
        b64url(b"not json"),
        b64url(b"\xff\xfe\xfd"),
        b64url(b"{"),
        b64url(b'{"a": 1} x'),
    ],
)
def test_unreadable_payload_is_a_wallet_mismatch(segment: str) -> None:
    assert failure(auth._decode_jwt_payload_unverified, f"h.{segment}.s") == "wallet_mismatch"


@pytest.mark.parametrize("payload", [None, True, 5, 1.5, "text", [], [{"sub": ADDRESS}]])
def test_payload_that_is_not_an_object_is_a_wallet_mismatch(payload: Any) -> None:
    assert failure(auth._decode_jwt_payload_unverified, with_payload(payload)) == "wallet_mismatch"


@pytest.mark.parametrize("token", [None, 5, b"a.b.c", ["a", "b", "c"], object()])
def test_token_that_is_not_text_is_a_wallet_mismatch(token: Any) -> None:
    assert failure(auth._decode_jwt_payload_unverified, token) == "wallet_mismatch"


def test_payload_nested_beyond_the_parser_is_a_wallet_mismatch() -> None:
    assert failure(auth._decode_jwt_payload_unverified, with_payload_text("[" * 200_000)) == "wallet_mismatch"


def test_payload_with_an_integer_too_long_for_the_host_is_a_wallet_mismatch() -> None:
    token = with_payload_text('{"era_number": ' + "9" * 5000 + "}")
    assert failure(auth._decode_jwt_payload_unverified, token) == "wallet_mismatch"


@pytest.mark.parametrize("encoding", ["utf-8", "utf-8-sig", "utf-16", "utf-16-le", "utf-32"])
def test_payload_may_be_in_any_encoding_the_json_parser_detects(encoding: str) -> None:
    token = with_payload_bytes('{"k": "ä"}'.encode(encoding))
    assert auth._decode_jwt_payload_unverified(token) == {"k": "ä"}


def test_of_repeated_keys_the_last_one_counts() -> None:
    assert auth._decode_jwt_payload_unverified(with_payload_text('{"a": 1, "a": 2}')) == {"a": 2}


# Python 3.15 warns of some of them.
@pytest.mark.filterwarnings("ignore:invalid character:FutureWarning")
@pytest.mark.parametrize("junk", ["\n", " ", "!", "*", "+", "/", "="])
def test_characters_outside_the_alphabet_are_treated_as_the_host_does(junk: str) -> None:
    segment = b64url(b'{"k": "xxxxxxxxxxx"}')
    for place in (0, 5, len(segment)):
        token = f"h.{segment[:place]}{junk}{segment[place:]}.s"
        wanted = expected_payload(token)
        if wanted is None:
            assert failure(auth._decode_jwt_payload_unverified, token) == "wallet_mismatch"
        else:
            assert auth._decode_jwt_payload_unverified(token) == wanted


JSON_VALUES = st.recursive(
    st.none() | st.booleans() | st.integers() | st.floats(allow_nan=False) | st.text(max_size=10),
    lambda inner: st.lists(inner, max_size=3) | st.dictionaries(st.text(max_size=5), inner, max_size=3),
    max_leaves=8,
)


@PROPERTY
@given(st.dictionaries(st.text(max_size=8), JSON_VALUES, max_size=5))
def test_every_object_survives_the_round_trip(payload: dict[str, Any]) -> None:
    assert auth._decode_jwt_payload_unverified(with_payload(payload)) == payload


@PROPERTY
@given(
    st.text(max_size=30)
    | st.lists(st.text(alphabet="abAB01-_=.{}\n", max_size=9), max_size=5).map(".".join)
    | st.binary(max_size=24).map(with_payload_bytes)
)
@example("h.e30.s")
@example("h.e30=.s")
@example("h.e3 0.s")
def test_any_token_text_is_read_as_the_host_reads_it_or_refused(token: str) -> None:
    wanted = expected_payload(token)
    if wanted is None:
        assert failure(auth._decode_jwt_payload_unverified, token) == "wallet_mismatch"
    else:
        assert auth._decode_jwt_payload_unverified(token) == wanted


# Era number


@pytest.mark.parametrize(
    ("value", "era"),
    [
        ("1", 1),
        ("12", 12),
        ('"12"', 12),
        ('" 7 "', 7),
        ('"+5"', 5),
        ('"1_000"', 1000),
        ('"\u0661\u0662"', 12),
        ("7.0", 7),
        ("7.9", 7),
        ("1e3", 1000),
        ("1" + "0" * 400, 10**400),
        ("0", None),
        ("-1", None),
        ("0.9", None),
        ("-0.5", None),
        ("-7.9", None),
        ('"0"', None),
        ('"-3"', None),
        ("null", None),
        ("true", None),
        ("false", None),
    ],
)
def test_era_number_claim_is_read(value: str, era: int | None) -> None:
    result = auth._jwt_era_number(with_payload_text(f'{{"era_number": {value}}}'))
    assert result == era
    assert result is None or type(result) is int


@pytest.mark.parametrize(
    "value",
    [
        '"abc"',
        '""',
        '" "',
        '"1.5"',
        '"0x10"',
        "[]",
        "[7]",
        "{}",
        "NaN",
        "Infinity",
        "-Infinity",
        "1e400",
        "-1e999",
    ],
)
def test_era_number_that_cannot_become_an_integer_is_an_era_mismatch(value: str) -> None:
    token = with_payload_text(f'{{"era_number": {value}}}')
    assert failure(auth._jwt_era_number, token) == "era_mismatch"


def test_era_number_text_too_long_for_the_host_is_an_era_mismatch() -> None:
    token = with_payload({"era_number": "9" * 5000})
    assert failure(auth._jwt_era_number, token) == "era_mismatch"


def test_era_number_absent_is_none() -> None:
    assert auth._jwt_era_number(issued(ADDRESS)) is None
    assert auth._jwt_era_number(with_payload({"Era_Number": 5})) is None


def test_era_of_a_token_given_as_bytes_is_read() -> None:
    assert auth._jwt_era_number(issued(ADDRESS, 9).encode("ascii")) == 9


def test_bytes_token_that_is_not_ascii_is_an_era_mismatch() -> None:
    assert failure(auth._jwt_era_number, b"\xff" + issued(ADDRESS, 9).encode("ascii")) == "era_mismatch"


@pytest.mark.parametrize("token", ["", "a.b", "a.b.c.d", b"a.b", b"", None, 7])
def test_unreadable_token_passes_its_wallet_mismatch_on(token: Any) -> None:
    assert failure(auth._jwt_era_number, token) == "wallet_mismatch"


def test_payload_that_is_no_object_passes_its_wallet_mismatch_on() -> None:
    assert failure(auth._jwt_era_number, with_payload([5])) == "wallet_mismatch"


@PROPERTY
@given(JSON_VALUES | st.floats())
def test_every_era_value_gives_a_positive_integer_or_none_or_an_era_mismatch(value: Any) -> None:
    token = with_payload({"era_number": value})
    if value is None or isinstance(value, bool):
        assert auth._jwt_era_number(token) is None
        return
    try:
        number = int(value)
    except (TypeError, ValueError, OverflowError):
        assert failure(auth._jwt_era_number, token) == "era_mismatch"
    else:
        assert auth._jwt_era_number(token) == (number if number > 0 else None)


# Subject

CHECKSUMMED = "0x2c7536E3605D9C16a7a3D7b1898e529396a65c23"


@pytest.mark.parametrize(
    "subject", [CHECKSUMMED, CHECKSUMMED.lower(), CHECKSUMMED.upper(), "0x" + CHECKSUMMED[2:].upper()]
)
def test_subject_in_any_case_matches_the_lowercase_address(subject: str) -> None:
    assert auth._assert_token_subject_matches_wallet(issued(subject), CHECKSUMMED.lower()) is None


def test_wallet_address_is_compared_as_given() -> None:
    token = issued(CHECKSUMMED)
    assert failure(auth._assert_token_subject_matches_wallet, token, CHECKSUMMED) == "wallet_mismatch"


@pytest.mark.parametrize(
    "payload",
    [
        {},
        {"sub": None},
        {"sub": 5},
        {"sub": True},
        {"sub": [ADDRESS]},
        {"sub": {"a": ADDRESS}},
        {"sub": ""},
        {"sub": " " + ADDRESS},
        {"sub": ADDRESS[2:]},
        {"sub": ADDRESS[:-1] + "0"},
        {"Sub": ADDRESS},
    ],
)
def test_subject_missing_not_text_or_another_is_a_wallet_mismatch(payload: dict[str, Any]) -> None:
    assert payload.get("sub") != ADDRESS
    token = with_payload(payload)
    assert failure(auth._assert_token_subject_matches_wallet, token, ADDRESS) == "wallet_mismatch"


@pytest.mark.parametrize("token", ["", "a.b", None, b"a.b.c"])
def test_subject_of_an_unreadable_token_is_a_wallet_mismatch(token: Any) -> None:
    assert failure(auth._assert_token_subject_matches_wallet, token, ADDRESS) == "wallet_mismatch"


@PROPERTY
@given(st.text(max_size=12), st.text(max_size=12))
@example("İ", "i̇")
@example("ΑΣ", "ας")
def test_subject_matches_exactly_when_its_lower_form_equals_the_address(subject: str, address: str) -> None:
    token = with_payload({"sub": subject})
    if subject.lower() == address:
        assert auth._assert_token_subject_matches_wallet(token, address) is None
    else:
        assert failure(auth._assert_token_subject_matches_wallet, token, address) == "wallet_mismatch"


# Calling


def test_arguments_may_be_given_by_keyword() -> None:
    token = issued(ADDRESS, 3)
    assert auth._decode_jwt_payload_unverified(token=token)["era_number"] == 3
    assert auth._jwt_era_number(token=token) == 3
    assert auth._assert_token_subject_matches_wallet(token=token, wallet_address=ADDRESS) is None


@pytest.mark.parametrize("name", ["_decode_jwt_payload_unverified", "_jwt_era_number"])
def test_no_token_in_an_argument_error(name: str) -> None:
    token = issued(ADDRESS, 3)
    for args, kwargs in [((token, token), {}), ((), {"jwt": token}), ((token,), {"token": token}), ((), {})]:
        with pytest.raises(TypeError) as caught:
            getattr(auth, name)(*args, **kwargs)
        assert token not in str(caught.value)
        assert name in str(caught.value)

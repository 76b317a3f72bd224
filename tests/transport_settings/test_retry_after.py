"""A server that requests a delay of a day gets minutes."""

from __future__ import annotations

import http.client
import time
import types
from collections.abc import Mapping
from typing import Any

import httpx
import pytest
from requests.structures import CaseInsensitiveDict

from tessaline._retry_after import bounded_answer

from .readings import waited

BOUND = 300
DIGITS = 4301  # one more than `int` accepts


def answering(answer: Any, seconds: int | None = None) -> Any:
    """A transport with this response, limited if requested."""
    return lambda *_args, **_kwargs: answer if seconds is None else bounded_answer(answer, seconds)


def shown(told: Any) -> str:
    return f"{type(told).__name__}:{ascii(told)[:9]}"


def let_through(headers: Any, seconds: int = BOUND) -> Any:
    """The headers from the limited transport."""
    status, given, body = bounded_answer((429, headers, b"later"), seconds)
    assert (status, body) == (429, b"later")
    return given


@pytest.mark.parametrize(
    "told",
    [
        "301",
        "86400",
        " 86400",
        "86400\t",
        "+86400",
        "0086400",
        "86_400",
        "9" * DIGITS,
        "0" * DIGITS + "86400",
        f" +{'9' * DIGITS} ",
        "1" + "_0" * DIGITS,
        "\N{ARABIC-INDIC DIGIT NINE}" * 3,
        b"86400",
        b"9" * DIGITS,
        86400,
        86400.5,
    ],
    ids=shown,
)
def test_more_than_the_bound_becomes_the_bound(told: Any) -> None:
    assert let_through({"Retry-After": told, "Server": "x"}) == {"Retry-After": "300", "Server": "x"}


@pytest.mark.parametrize(
    "told",
    [
        "300",
        "1",
        "0",
        "-86400",
        "",
        " ",
        "soon",
        "1.5e9",
        "86400.0",
        "86400 seconds",
        "8 6400",
        "Wed, 21 Oct 2099 07:28:00 GMT",
        "0" * DIGITS,
        "0" * DIGITS + "300",
        "-" + "9" * DIGITS,
        "9" * DIGITS + "x",
        b"soon",
        b"\xff",
        300,
        None,
        [86400],
        float("inf"),
        float("nan"),
    ],
    ids=shown,
)
def test_anything_else_is_let_through(told: Any) -> None:
    answer = (429, {"Retry-After": told}, b"later")
    assert bounded_answer(answer, BOUND) is answer


@pytest.mark.parametrize("name", ["Retry-After", "retry-after", "RETRY-AFTER", "rEtRy-aFtEr"])
def test_any_spelling_of_the_name(name: str) -> None:
    assert let_through({name: "86400"}) == {name: "300"}


def test_each_of_several_spellings() -> None:
    headers = {"retry-after": "86400", "Retry-After": "5", "RETRY-AFTER": "301", 7: "86400"}
    assert let_through(headers) == {**headers, "retry-after": "300", "RETRY-AFTER": "300"}


def test_the_headers_that_were_given_stay_as_they_are() -> None:
    headers = {"Retry-After": "86400"}
    assert let_through(headers) == {"Retry-After": "300"}
    assert headers == {"Retry-After": "86400"}


def mail_headers() -> http.client.HTTPMessage:
    headers = http.client.HTTPMessage()
    headers["Retry-After"] = "86400"
    return headers


@pytest.mark.parametrize(
    "headers",
    [
        types.MappingProxyType({"Retry-After": "86400"}),
        CaseInsensitiveDict({"RETRY-after": "86400"}),
        httpx.Headers({"retry-AFTER": "86400"}),
        mail_headers(),
    ],
    ids=lambda headers: type(headers).__name__,
)
def test_any_mapping(headers: Mapping[str, str]) -> None:
    before = dict(headers.items())
    assert let_through(headers).get("Retry-After") == "300"
    assert dict(headers.items()) == before


@pytest.mark.parametrize(
    "answer",
    [
        None,
        (),
        (429, {"Retry-After": "86400"}),
        (429, None, b""),
        (429, [("Retry-After", "86400")], b""),
        (200, {}, b"good"),
        (200, {"Content-Type": "text/plain"}, b"good"),
    ],
    ids=repr,
)
def test_what_holds_no_bound_to_keep_is_the_same_object(answer: Any) -> None:
    assert bounded_answer(answer, BOUND) is answer


def test_a_list_is_an_answer_too() -> None:
    answer = [429, {"Retry-After": "86400"}, b""]
    assert tuple(bounded_answer(answer, BOUND)) == (429, {"Retry-After": "300"}, b"")


def test_garbage_of_any_length_is_read_in_one_pass() -> None:
    # The longest line that the default transport accepts.
    begun = time.perf_counter()
    for told in ("0" * 100_000 + "x", "9" * 100_000 + "x", " " * 100_000 + "x", "1_" * 50_000):
        assert let_through({"Retry-After": told}) == {"Retry-After": told}
    assert time.perf_counter() - begun < 2.0


@pytest.mark.parametrize("told", ["86400", "9" * DIGITS, "  86400 "])
def test_a_manager_waits_no_longer(told: str) -> None:
    assert waited(answering((429, {"Retry-After": told}, b""), BOUND)) == [300, 300]


@pytest.mark.parametrize("told", ["7", "Wed, 21 Oct 2099 07:28:00 GMT", "soon"])
def test_a_manager_waits_as_it_would_without_a_bound(told: str) -> None:
    answer = 429, {"Retry-After": told}, b""
    assert waited(answering(answer, BOUND)) == waited(answering(answer))

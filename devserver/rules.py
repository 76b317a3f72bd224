"""Rules for values, each with its check, its text and its JSON schema."""

import base64
import binascii
import math
import re
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any, TypeGuard

Schema = dict[str, Any]

_FARTHEST = 10_000_000_000
_LARGEST_BODY = 1 << 28
_LONGEST_DELAY = 600
_FRAMING = frozenset({"content-length", "transfer-encoding"})
_HEADER_NAME = r"[!#$%&'*+.^_`|~0-9A-Za-z-]+"
_HEADER_VALUE = r"(?:[!-~\xa0-\xff](?:[\t -~\xa0-\xff]*[!-~\xa0-\xff])?)?"
_BASE64 = r"(?:[A-Za-z0-9+/]{4})*(?:[A-Za-z0-9+/]{2}==|[A-Za-z0-9+/]{3}=)?"


@dataclass(frozen=True)
class Rule:
    """A condition on JSON values: the check `fits`, and `words` and `schema` that describe it.

    take: converts a value that fits.
    """

    fits: Callable[[Any], bool]
    words: str
    schema: Schema
    take: Callable[[Any], Any] = lambda value: value


def is_number(value: Any) -> TypeGuard[float]:
    return (isinstance(value, float) and math.isfinite(value)) or is_integer(value)


def is_integer(value: Any) -> TypeGuard[int]:
    return isinstance(value, int) and not isinstance(value, bool)


def is_whole(value: Any) -> TypeGuard[float]:
    """Whether it is an integer in JSON, such as 2.0."""
    return is_integer(value) or (isinstance(value, float) and value.is_integer())


def _as_integer(value: Any) -> Any:
    return int(value) if isinstance(value, float) else value


def is_text(value: Any) -> TypeGuard[str]:
    # JSON can escape lone surrogates, which cannot be encoded.
    return isinstance(value, str) and not re.search("[\ud800-\udfff]", value)


def _is_base64(value: Any) -> bool:
    try:
        base64.b64decode(value, validate=True)
    except (TypeError, ValueError, binascii.Error):
        return False
    return True


def _is_header_value(value: Any) -> bool:
    return isinstance(value, str) and bool(re.fullmatch(_HEADER_VALUE, value))


def _is_headers(value: Any) -> bool:
    return isinstance(value, dict) and all(
        re.fullmatch(_HEADER_NAME, name)
        and name.lower() not in _FRAMING
        and all(map(_is_header_value, item if isinstance(item, list) else [item]))
        for name, item in value.items()
    )


def _is_texts(value: Any) -> bool:
    return isinstance(value, list) and all(map(is_text, value))


def _between(low: float, high: float, check: Callable[[Any], bool]) -> Callable[[Any], bool]:
    return lambda value: check(value) and low <= value <= high


def number(low: float, high: float, words: str) -> Rule:
    """A number from `low` to `high`."""
    schema: Schema = {"type": "number", "minimum": low, "maximum": high}
    return Rule(_between(low, high, is_number), words, schema)


def integer(low: int, high: int, words: str) -> Rule:
    """An integer from `low` to `high`."""
    schema: Schema = {"type": "integer", "minimum": low, "maximum": high}
    return Rule(_between(low, high, is_whole), words, schema, _as_integer)


def one_of(*values: Any) -> Rule:
    """One of a few texts, or of a few integers."""
    kind = "string" if isinstance(values[0], str) else "integer"
    words = f"{', '.join(map(str, values[:-1]))} or {values[-1]}"
    return Rule(
        lambda value: type(value) is type(values[0]) and value in values,
        words,
        {"type": kind, "enum": list(values)},
    )


_HEADER_VALUE_SCHEMA: Schema = {"type": "string", "pattern": f"^{_HEADER_VALUE}$"}

ANYTHING = Rule(lambda _value: True, "any JSON value", {})
TEXT = Rule(is_text, "a text", {"type": "string"})
FLAG = Rule(lambda value: isinstance(value, bool), "true or false", {"type": "boolean"})
OBJECT = Rule(lambda value: isinstance(value, dict), "an object", {"type": "object"})
TEXTS = Rule(_is_texts, "a list of texts", {"type": "array", "items": {"type": "string"}})
INTEGER_OR_NULL = Rule(
    lambda value: value is None or is_whole(value),
    "an integer or null",
    {"type": ["integer", "null"]},
    _as_integer,
)
SECONDS = number(-_FARTHEST, _FARTHEST, "a number of seconds")
LIFETIME = Rule(
    lambda value: is_number(value) and 0 < value <= _FARTHEST,
    "a positive number of seconds",
    {"type": "number", "exclusiveMinimum": 0, "maximum": _FARTHEST},
)
DELAY = number(0, _LONGEST_DELAY, f"a number of seconds, {_LONGEST_DELAY} at most")
STATUS = integer(200, 599, "a status from 200 to 599")
SIZE = integer(0, _LARGEST_BODY, "a number of bytes")
TIMES = Rule(
    lambda value: value is None or (is_whole(value) and value > 0),
    "a number of requests, or null",
    {"type": ["integer", "null"], "minimum": 1, "default": 1},
    _as_integer,
)
BASE64 = Rule(
    _is_base64, "base64", {"type": "string", "contentEncoding": "base64", "pattern": f"^{_BASE64}$"}
)
HEADER_VALUE = Rule(_is_header_value, "the value of a header", _HEADER_VALUE_SCHEMA)
HEADERS = Rule(
    _is_headers,
    "an object of texts or lists of texts, without Content-Length and Transfer-Encoding",
    {
        "type": "object",
        "propertyNames": {"pattern": f"^{_HEADER_NAME}$"},
        "additionalProperties": {
            "anyOf": [_HEADER_VALUE_SCHEMA, {"type": "array", "items": _HEADER_VALUE_SCHEMA}]
        },
    },
)

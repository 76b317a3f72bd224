"""Faults on the command line: ``verify=503x2``."""

import json
import re
from typing import Any

from .endpoints import endpoint_name
from .faults import KINDS, fields_at, parse_scripts

_FORM = re.compile(
    r"(?P<kind>[a-z][a-z_0-9]*?|[0-9]{3})(?::(?P<value>.+?))?(?:x(?P<times>[0-9]+|all))?", re.DOTALL
)

Script = list[dict[str, Any]]


def parse_option(text: str) -> tuple[str, Script]:
    """The endpoint and the script in `text`; a ValueError has one sentence.

    ENDPOINT=FAULT[xTIMES], where FAULT is a status, KIND or KIND:VALUE, or ENDPOINT=JSON with the object of a
    fault or a list of them. TIMES is a number, or "all" for all further requests.
    """
    endpoint, equals, form = text.partition("=")
    if not endpoint or not equals or not form:
        raise ValueError(f"{text!r} is not like ENDPOINT=FAULT, such as verify=503x2")
    script = _from_json(form) if form[0] in "{[" else [_from_words(endpoint, form)]
    parse_scripts({endpoint: script})
    return endpoint_name(endpoint), script


def _from_json(form: str) -> Script:
    try:
        value = json.loads(form)
    except (ValueError, RecursionError):
        raise ValueError(f"{form!r} is not JSON") from None
    return value if isinstance(value, list) else [value]


def _from_words(endpoint: str, form: str) -> dict[str, Any]:
    found = _FORM.fullmatch(form)
    if found is None:
        raise ValueError(f"{form!r} is neither a status nor KIND, KIND:VALUE or JSON, with xTIMES or without")
    kind, text, times = found["kind"], found["value"], found["times"]
    if kind.isdigit():
        kind, text = "status", kind
    if kind not in KINDS:
        raise ValueError(f"there is no fault {kind!r}; the kinds are: {', '.join(KINDS)}")
    fault: dict[str, Any] = {"kind": kind}
    if text is not None:
        main = KINDS[kind].main
        if main is None:
            raise ValueError(f"fault {kind!r} takes no value: its fields, if any, are given as JSON")
        fault[main] = _value(text, fields_at(endpoint_name(endpoint), kind)[main].fits)
    if times is not None:
        fault["times"] = None if times == "all" else int(times)
    return fault


def _value(text: str, fits: Any) -> Any:
    """The JSON value of `text` if it is one that fits, else the text."""
    try:
        value = json.loads(text)
    except (ValueError, RecursionError):
        return text
    return value if fits(value) else text

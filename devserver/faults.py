"""Scripts of faults per endpoint: their JSON form, and which one is next.

A script is a list of objects, each with a "kind", the fields of that kind, and optionally

- "times": how many requests it meets (default 1), or null for every one from there on;
- "delay": seconds to wait before anything is done with the request;
- "hold": true waits there until the control endpoint releases what is held;
- "processed": true lets the service act on the request although its answer is not used.

The endpoint is "register", "challenge", "verify", "display_name", any path, or "*" for every path
without a script of its own. The kinds, with their fields in parentheses; [answer] stands for "status" (200
to 599), "headers" (texts or lists of texts by name) and one of "json", "body" (text) and "body_base64", each
in place of the service's own; [end] for "close_notify" (false leaves TLS without a farewell):

- pass: nothing. hold: nothing after the release.
- delay (seconds, at: "headers" or "body"): wait before the answer, or in the middle of its body.
- status ([answer]), redirect (location, status), empty_body (status), non_json (status, body),
  not_utf8 (status, body_base64): that answer; the service does not see the request.
- close ([end]), reset: end the connection instead of answering; reset is a TCP reset.
- garbage (body or body_base64, [end]): those bytes in place of an answer, then the end.
- close_after ([end]): end the connection, unannounced, after the whole answer.
- chunked ([answer]): the whole answer in chunks.
- cut_body (declared, sent, reset, [answer], [end]): `sent` bytes of a body whose length is `declared`.
- cut_chunked (sent, reset, [answer], [end]): a chunked body that ends within a chunk.
- bad_chunk ([answer], [end]): a chunked body whose second chunk has no readable size.
- trailing (body or body_base64): the whole answer and those bytes at one go; the connection stays open.
- huge_body (bytes, json): the answer made that long; with json false as many times "x".
- missing_key (key), set_key (key, value): the answer without that key, or with another value.
- stale_challenge (status: 404, 409 or 410): as for an unknown, used or expired challenge.
- wrong_subject (subject), era (value), era_missing, era_old, claims (set, drop): another token.
- bad_token (value), changed_secret (value): that in place of the token, or of the wallet secret.

The endpoint "connect" stands for the connections to the second port (option --gate), of which each meets
one fault before a byte of HTTP is read. "at" is "accept", "hello" (the client has spoken) or "handshake"
(half of the TLS server's first answer is out). The kinds there:

- pass: nothing.
- hang_up (at, reset): end the connection; reset is a TCP reset.
- stall (at): say nothing more until the client leaves.
- babble (body or body_base64): once the client has spoken, those bytes in place of a handshake, then the end.
- certificate (flaw: "untrusted", "misnamed" or "expired"): that certificate in the handshake.
"""

import asyncio
import base64
import binascii
import re
from collections import deque
from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Any

from .settings import Check, is_flag, is_integer, is_number, is_object, is_text

CONNECT = "connect"
FLAWS = ("untrusted", "misnamed", "expired")

_LARGEST_BODY = 1 << 28
_LONGEST_DELAY = 600.0
_FRAMING = frozenset({"content-length", "transfer-encoding"})
_HEADER_NAME = re.compile(r"[!#$%&'*+.^_`|~0-9A-Za-z-]+")
_HEADER_VALUE = re.compile(r"|[!-~\xa0-\xff](?:[\t -~\xa0-\xff]*[!-~\xa0-\xff])?")


def _is_anything(_value: Any) -> bool:
    return True


def _is_base64(value: Any) -> bool:
    try:
        base64.b64decode(value, validate=True)
    except (TypeError, ValueError, binascii.Error):
        return False
    return True


def _is_status(value: Any) -> bool:
    return is_integer(value) and 200 <= value <= 599


def _is_delay(value: Any) -> bool:
    return is_number(value) and 0 <= value <= _LONGEST_DELAY


def _is_size(value: Any) -> bool:
    return is_integer(value) and 0 <= value <= _LARGEST_BODY


def _is_header_value(value: Any) -> bool:
    return is_text(value) and bool(_HEADER_VALUE.fullmatch(value))


def _is_header_values(value: Any) -> bool:
    return _is_header_value(value) or (isinstance(value, list) and all(map(_is_header_value, value)))


def _is_headers(value: Any) -> bool:
    return is_object(value) and all(
        _HEADER_NAME.fullmatch(name) and name.lower() not in _FRAMING and _is_header_values(item)
        for name, item in value.items()
    )


def _is_names(value: Any) -> bool:
    return isinstance(value, list) and all(map(is_text, value))


def _one_of(*values: Any) -> Check:
    return lambda value: value in values


_BODY: dict[str, Check] = {"json": _is_anything, "body": is_text, "body_base64": _is_base64}
_ANSWER: dict[str, Check] = {"status": _is_status, "headers": _is_headers, **_BODY}
_DROP: dict[str, Check] = {"close_notify": is_flag}
_CUT: dict[str, Check] = {"sent": _is_size, "reset": is_flag, **_ANSWER, **_DROP}
_AT: dict[str, Check] = {"at": _one_of("accept", "hello", "handshake")}
_TEXT: dict[str, Check] = {"body": is_text, "body_base64": _is_base64}
_COMMON: dict[str, Check] = {
    "delay": _is_delay,
    "hold": is_flag,
    "processed": is_flag,
    "times": lambda value: value is None or (is_integer(value) and value > 0),
}


# Where a fault for one endpoint may stand besides.
_ANY: dict[str, tuple[str, ...]] = {"verify": ("*",)}


@dataclass(frozen=True)
class Kind:
    """Fields that a kind of fault takes, and whether its answer starts from the service's own.

    required: fields that must be there. only_at: the one endpoint at which it makes sense.
    """

    fields: Mapping[str, Check] = field(default_factory=dict)
    uses_service: bool = False
    required: frozenset[str] = frozenset()
    only_at: str | None = None


KINDS: dict[str, Kind] = {
    "pass": Kind(uses_service=True),
    "delay": Kind(
        {"seconds": _is_delay, "at": _one_of("headers", "body")}, True, required=frozenset({"seconds"})
    ),
    "hold": Kind(uses_service=True),
    "status": Kind(_ANSWER, required=frozenset({"status"})),
    "redirect": Kind({"status": _is_status, "location": _is_header_value}, required=frozenset({"location"})),
    "close": Kind(_DROP),
    "reset": Kind(),
    "garbage": Kind({**_TEXT, **_DROP}),
    "close_after": Kind(_DROP, True),
    "chunked": Kind(_ANSWER, True),
    "cut_body": Kind({"declared": _is_size, **_CUT}, True),
    "cut_chunked": Kind(_CUT, True),
    "bad_chunk": Kind({**_ANSWER, **_DROP}, True),
    "trailing": Kind(_TEXT, True),
    "empty_body": Kind({"status": _is_status}),
    "non_json": Kind({"status": _is_status, "body": is_text}),
    "not_utf8": Kind({"status": _is_status, "body_base64": _is_base64}),
    "huge_body": Kind({"bytes": _is_size, "json": is_flag}, True),
    "missing_key": Kind({"key": is_text}, True, required=frozenset({"key"})),
    "set_key": Kind({"key": is_text, "value": _is_anything}, True, required=frozenset({"key", "value"})),
    "stale_challenge": Kind({"status": _one_of(404, 409, 410)}, only_at="verify"),
    "wrong_subject": Kind({"subject": _is_anything}, True, only_at="verify"),
    "changed_secret": Kind({"value": _is_anything}, True, only_at="verify"),
    "era": Kind({"value": _is_anything}, True, required=frozenset({"value"}), only_at="verify"),
    "era_missing": Kind(uses_service=True, only_at="verify"),
    "era_old": Kind(uses_service=True, only_at="verify"),
    "claims": Kind({"set": is_object, "drop": _is_names}, True, only_at="verify"),
    "bad_token": Kind({"value": _is_anything}, True, only_at="verify"),
    "hang_up": Kind({"reset": is_flag, **_AT}, only_at=CONNECT),
    "stall": Kind(_AT, only_at=CONNECT),
    "babble": Kind(_TEXT, only_at=CONNECT),
    "certificate": Kind({"flaw": _one_of(*FLAWS)}, required=frozenset({"flaw"}), only_at=CONNECT),
}


@dataclass(frozen=True)
class Fault:
    """One checked object of a script."""

    kind: str
    fields: Mapping[str, Any]

    @property
    def delay(self) -> float:
        """Seconds to wait before anything is done with the request."""
        at_headers = self.kind == "delay" and self.fields.get("at") != "body"
        return float(self.fields["seconds"] if at_headers else self.fields.get("delay", 0.0))

    @property
    def body_delay(self) -> float:
        """Seconds to wait in the middle of the body."""
        at_body = self.kind == "delay" and self.fields.get("at") == "body"
        return float(self.fields["seconds"]) if at_body else 0.0

    @property
    def hold(self) -> bool:
        """Whether the request waits for a release."""
        return self.kind == "hold" or bool(self.fields.get("hold"))

    @property
    def runs_service(self) -> bool:
        """Whether the service acts on the request."""
        return KINDS[self.kind].uses_service or bool(self.fields.get("processed"))


def parse_fault(endpoint: str, value: Any) -> tuple[Fault, int | None]:
    """The fault of the JSON `value` and how many requests it meets; ValueError says what is wrong with it."""
    name = value.get("kind") if isinstance(value, dict) else None
    if not isinstance(name, str) or name not in KINDS:
        raise ValueError(f"a fault is an object whose kind is one of: {', '.join(KINDS)}")
    kind = KINDS[name]
    if kind.only_at is not None and endpoint not in (kind.only_at, *_ANY.get(kind.only_at, ())):
        raise ValueError(f"fault {name!r} is for the endpoint {kind.only_at!r}")
    if endpoint == CONNECT and kind.only_at != CONNECT and name != "pass":
        raise ValueError(f"fault {name!r} is not for the endpoint {CONNECT!r}")
    common = {"times": _COMMON["times"]} if endpoint == CONNECT else _COMMON
    checks = {**common, **kind.fields}
    fields = {key: item for key, item in value.items() if key != "kind"}
    for key, item in fields.items():
        if key not in checks:
            raise ValueError(f"fault {name!r} has no field {key!r}")
        if not checks[key](item):
            raise ValueError(f"fault {name!r} cannot take this {key!r}")
    missing = kind.required - fields.keys()
    if missing:
        raise ValueError(f"fault {name!r} needs {', '.join(sorted(missing))}")
    return Fault(name, fields), fields.get("times", 1)


class Plan:
    """The scripts of all endpoints, used up from the front."""

    def __init__(self) -> None:
        self._scripts: dict[str, deque[tuple[Fault, int | None]]] = {}
        self._released = asyncio.Event()

    def clear(self) -> None:
        """Forget every script and release what is held."""
        self._scripts.clear()
        self.release()

    def replace(self, scripts: Mapping[str, Any]) -> None:
        """Replace the scripts of the endpoints named, all or none; ValueError says what is wrong."""
        parsed: dict[str, deque[tuple[Fault, int | None]]] = {}
        for endpoint, script in scripts.items():
            if not isinstance(script, list):
                raise ValueError(f"the script of {endpoint!r} must be a list")
            parsed[endpoint] = deque(parse_fault(endpoint, value) for value in script)
        self._scripts.update(parsed)

    def take(self, endpoint: str) -> Fault | None:
        """The fault that the next request at `endpoint` meets, or None for a genuine answer."""
        script = self._scripts.get(endpoint) or (endpoint != CONNECT and self._scripts.get("*"))
        if not script:
            return None
        fault, times = script[0]
        if times is not None:
            script.popleft()
            if times > 1:
                script.appendleft((fault, times - 1))
        return fault

    @property
    def released(self) -> asyncio.Event:
        """Set at the next release; to be read by a request when its hold begins."""
        return self._released

    def release(self) -> None:
        """Let every request that is held now go on."""
        self._released.set()
        self._released = asyncio.Event()

    def as_json(self) -> dict[str, list[dict[str, Any]]]:
        """What is still to come, by endpoint: kind and times."""
        return {
            endpoint: [{"kind": fault.kind, "times": times} for fault, times in script]
            for endpoint, script in self._scripts.items()
            if script
        }

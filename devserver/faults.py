"""The kinds of faults and their JSON form; docs/devserver.md describes each."""

import re
from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Any

from .endpoints import ENDPOINTS, endpoint_name
from .rules import (
    ANYTHING,
    BASE64,
    DELAY,
    FLAG,
    HEADER_VALUE,
    HEADERS,
    OBJECT,
    SIZE,
    STATUS,
    TEXT,
    TEXTS,
    TIMES,
    Rule,
    one_of,
)

CONNECT = "connect"
FLAWS = ("untrusted", "misnamed", "expired")
# Rejects other names of scripts, which would silently have no effect.
SCRIPT_NAME = rf"{'|'.join(ENDPOINTS.values())}|{CONNECT}|\*|/[!-~]*"

Rules = Mapping[str, Rule]

_TEXT: Rules = {"body": TEXT, "body_base64": BASE64}
_ANSWER: Rules = {"status": STATUS, "headers": HEADERS, "json": ANYTHING, **_TEXT}
_END: Rules = {"close_notify": FLAG}
_CUT: Rules = {"sent": SIZE, "reset": FLAG, **_ANSWER, **_END}
_AT: Rules = {"at": one_of("accept", "hello", "handshake")}
_COMMON: Rules = {"times": TIMES, "delay": DELAY, "hold": FLAG, "processed": FLAG}


@dataclass(frozen=True)
class Kind:
    """The fields of a kind of fault, and whether it modifies the service's own response.

    required: mandatory fields. only_at: the only endpoint for which it is valid.
    main: the field of KIND:VALUE on the command line.
    """

    fields: Rules = field(default_factory=dict)
    uses_service: bool = False
    required: frozenset[str] = frozenset()
    only_at: str | None = None
    main: str | None = None


def _needs(*names: str) -> frozenset[str]:
    return frozenset(names)


KINDS: dict[str, Kind] = {
    "pass": Kind(uses_service=True),
    "delay": Kind(
        {"seconds": DELAY, "at": one_of("headers", "body")}, True, _needs("seconds"), main="seconds"
    ),
    "hold": Kind(uses_service=True),
    "status": Kind(_ANSWER, required=_needs("status"), main="status"),
    "redirect": Kind(
        {"status": STATUS, "location": HEADER_VALUE}, required=_needs("location"), main="location"
    ),
    "close": Kind(_END),
    "reset": Kind(),
    "garbage": Kind({**_TEXT, **_END}, main="body"),
    "close_after": Kind(_END, True),
    "chunked": Kind(_ANSWER, True),
    "cut_body": Kind({"declared": SIZE, **_CUT}, True, main="sent"),
    "cut_chunked": Kind(_CUT, True, main="sent"),
    "bad_chunk": Kind({**_ANSWER, **_END}, True),
    "trailing": Kind(_TEXT, True, main="body"),
    "empty_body": Kind({"status": STATUS}, main="status"),
    "non_json": Kind({"status": STATUS, "body": TEXT}, main="body"),
    "not_utf8": Kind({"status": STATUS, "body_base64": BASE64}, main="body_base64"),
    "huge_body": Kind({"bytes": SIZE, "json": FLAG}, True, main="bytes"),
    "missing_key": Kind({"key": TEXT}, True, _needs("key"), main="key"),
    "set_key": Kind({"key": TEXT, "value": ANYTHING}, True, _needs("key", "value")),
    "stale_challenge": Kind({"status": one_of(404, 409, 410)}, only_at="verify", main="status"),
    "wrong_subject": Kind({"subject": ANYTHING}, True, only_at="verify", main="subject"),
    "changed_secret": Kind({"value": ANYTHING}, True, only_at="verify", main="value"),
    "era": Kind({"value": ANYTHING}, True, _needs("value"), "verify", "value"),
    "era_missing": Kind(uses_service=True, only_at="verify"),
    "era_old": Kind(uses_service=True, only_at="verify"),
    "claims": Kind({"set": OBJECT, "drop": TEXTS}, True, only_at="verify", main="set"),
    "bad_token": Kind({"value": ANYTHING}, True, only_at="verify", main="value"),
    "hang_up": Kind({"reset": FLAG, **_AT}, only_at=CONNECT, main="at"),
    "stall": Kind(_AT, only_at=CONNECT, main="at"),
    "babble": Kind(_TEXT, only_at=CONNECT, main="body"),
    "certificate": Kind({"flaw": one_of(*FLAWS)}, False, _needs("flaw"), CONNECT, "flaw"),
}


def fields_at(endpoint: str, name: str) -> Rules:
    """The fields of the kind `name` at `endpoint`; ValueError if it is not valid there."""
    kind = KINDS[name]
    # "*" includes "verify", but not connections.
    if kind.only_at not in (None, endpoint) and (kind.only_at, endpoint) != ("verify", "*"):
        raise ValueError(f"fault {name!r} is for the endpoint {kind.only_at!r}")
    if endpoint != CONNECT:
        return {**_COMMON, **kind.fields}
    if kind.only_at != CONNECT and name != "pass":
        raise ValueError(f"fault {name!r} is not for the endpoint {CONNECT!r}")
    return {"times": TIMES, **kind.fields}


@dataclass(frozen=True)
class Fault:
    """One checked object of a script."""

    kind: str
    fields: Mapping[str, Any]

    @property
    def delay(self) -> float:
        """Seconds to wait before the request is processed."""
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
        """Whether the service processes the request."""
        return KINDS[self.kind].uses_service or bool(self.fields.get("processed"))


Scripts = dict[str, list[tuple[Fault, int | None]]]


def parse_fault(endpoint: str, value: Any) -> tuple[Fault, int | None]:
    """The fault in the JSON `value` and how many requests get it; ValueError if it is invalid."""
    name = value.get("kind") if isinstance(value, dict) else None
    if not isinstance(name, str) or name not in KINDS:
        raise ValueError(f"a fault is an object whose kind is one of: {', '.join(KINDS)}")
    rules = fields_at(endpoint, name)
    fields = {key: item for key, item in value.items() if key != "kind"}
    for key, item in fields.items():
        if key not in rules:
            raise ValueError(f"fault {name!r} has no field {key!r}")
        if not rules[key].fits(item):
            raise ValueError(f"fault {name!r} cannot take this {key!r}: it must be {rules[key].words}")
    missing = KINDS[name].required - fields.keys()
    if missing:
        raise ValueError(f"fault {name!r} needs {', '.join(sorted(missing))}")
    taken = {key: rules[key].take(item) for key, item in fields.items()}
    return Fault(name, taken), taken.get("times", 1)


def parse_scripts(scripts: Mapping[str, Any]) -> Scripts:
    """The scripts in the JSON `scripts`, by endpoint; ValueError if one is invalid."""
    parsed: Scripts = {}
    for name, script in scripts.items():
        if not re.fullmatch(SCRIPT_NAME, name):
            raise ValueError(f"{name!r} is none of: {', '.join(ENDPOINTS.values())}, {CONNECT}, a path, *")
        if not isinstance(script, list):
            raise ValueError(f"the script of {name!r} must be a list")
        endpoint = endpoint_name(name)
        parsed[endpoint] = [parse_fault(endpoint, value) for value in script]
    return parsed

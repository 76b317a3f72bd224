"""The control requests in the OpenAPI description; the schemas of faults are generated from their kinds."""

from typing import Any

from .control import LONGEST_WAIT
from .endpoints import CONTROL_PREFIX, ENDPOINTS
from .faults import CONNECT, KINDS, SCRIPT_NAME, fields_at
from .openapi_parts import operation, reference, refusals, responded, sent
from .rules import TEXTS
from .settings import RULES

_COUNT = {"type": "integer", "minimum": 0}
_TEXT = {"type": "string"}
_TEXT_OR_NULL = {"type": ["string", "null"]}


def _closed(properties: dict[str, Any]) -> dict[str, Any]:
    """An object with exactly these keys."""
    return {
        "type": "object",
        "required": list(properties),
        "properties": properties,
        "additionalProperties": False,
    }


def _list(items: dict[str, Any]) -> dict[str, Any]:
    return {"type": "array", "items": items}


def _by_name(items: dict[str, Any]) -> dict[str, Any]:
    return {"type": "object", "additionalProperties": items}


def _fault_name(kind: str, prefix: str = "") -> str:
    return f"{prefix}{kind.title().replace('_', '')}Fault"


def _fault(endpoint: str, kind: str) -> dict[str, Any]:
    fields = {name: rule.schema for name, rule in fields_at(endpoint, kind).items()}
    return {
        "type": "object",
        "required": ["kind", *sorted(KINDS[kind].required)],
        "properties": {"kind": {"const": kind}, **fields},
        "additionalProperties": False,
    }


def _faults() -> dict[str, Any]:
    """A schema for each kind, and one for those that an endpoint can take."""
    schemas = {_fault_name(name): _fault(kind.only_at or "verify", name) for name, kind in KINDS.items()}
    schemas[_fault_name("pass", "Connect")] = _fault(CONNECT, "pass")
    anywhere = [_fault_name(name) for name, kind in KINDS.items() if kind.only_at is None]
    verify = [_fault_name(name) for name, kind in KINDS.items() if kind.only_at == "verify"]
    connect = [_fault_name(name) for name, kind in KINDS.items() if kind.only_at == CONNECT]
    unions = {
        "Fault": anywhere,
        "VerifyFault": anywhere + verify,
        "ConnectFault": [_fault_name("pass", "Connect"), *connect],
    }
    return schemas | {name: {"oneOf": [reference(one) for one in of]} for name, of in unions.items()}


def _scripts() -> dict[str, Any]:
    by_endpoint = dict.fromkeys(ENDPOINTS.values(), "Fault")
    by_endpoint |= {"verify": "VerifyFault", "*": "VerifyFault", CONNECT: "ConnectFault"}
    return {
        "type": "object",
        "description": "Lists of faults by endpoint or path; an empty list removes a script.",
        "properties": {name: _list(reference(fault)) for name, fault in by_endpoint.items()},
        "propertyNames": {"pattern": f"^(?:{SCRIPT_NAME})$"},
        "additionalProperties": _list(reference("Fault")),
    }


_SETTINGS = {name: rule.schema for name, rule in RULES.items()}
_REQUEST = _closed(
    {
        "endpoint": {"type": "string", "description": "The endpoint's name, or the path if it has none."},
        "method": _TEXT,
        "path": _TEXT,
        "time": {"type": "number", "description": "Unix seconds."},
        "connection": _COUNT,
        "header_names": _list(_TEXT),
        "body_bytes": _COUNT,
        "body_keys": {"type": ["array", "null"], "items": _TEXT},
        "status": {"type": ["integer", "null"], "description": "null if there is no response, or none yet."},
        "fault": {"type": ["string", "null"], "description": "The kind of its fault."},
        "duration": {"type": ["number", "null"], "description": "Seconds, null until it ends."},
    }
)

CONTROL_SCHEMAS: dict[str, Any] = {
    "State": _closed(
        {
            "counts": _by_name(_COUNT),
            "requests": _list(reference("JournalEntry")),
            "connections": _closed({"accepted": _COUNT, "open": _COUNT}),
            "gate": _list(_TEXT),
            "faults": reference("FaultsLeft"),
            "settings": reference("Settings"),
            "invites": _closed({"known": _COUNT, "redeemed": _COUNT, "revoked": _COUNT}),
            "wallets": _COUNT,
        }
    ),
    "JournalEntry": _REQUEST,
    "FaultsLeft": _by_name(_list(_closed({"kind": _TEXT, "times": {"type": ["integer", "null"]}}))),
    "Settings": _closed({**_SETTINGS, "claims": _list(_TEXT) | {"description": "Their names."}}),
    "SettingsChange": {
        "type": "object",
        "properties": {**_SETTINGS, "invites": TEXTS.schema, "revoke_invites": TEXTS.schema},
        "additionalProperties": False,
    },
    "Scripts": _scripts(),
    "Wait": {
        "type": "object",
        "required": ["endpoint", "count", "timeout"],
        "properties": {
            "endpoint": _TEXT,
            "count": {"type": "integer"},
            "timeout": {"type": "number", "description": f"Seconds; at most {LONGEST_WAIT}."},
        },
    },
    "Count": _closed({"count": _COUNT}),
    "Nothing": {"type": "object", "additionalProperties": False},
    **_faults(),
}

CONTROL_PATHS: dict[str, Any] = {
    f"{CONTROL_PREFIX}state": {
        "get": operation("state", "control", "Requests so far, and remaining faults.", responded("State"))
    },
    f"{CONTROL_PREFIX}reset": {
        "post": operation("reset", "control", "Restore the initial state.", responded("Nothing"))
    },
    f"{CONTROL_PREFIX}settings": {
        "post": operation(
            "settings",
            "control",
            "Change settings.",
            sent("SettingsChange"),
            responded("Settings"),
            refusals("400"),
        )
    },
    f"{CONTROL_PREFIX}faults": {
        "post": operation(
            "faults",
            "control",
            "Replace scripts of faults.",
            sent("Scripts"),
            responded("FaultsLeft"),
            refusals("400"),
        )
    },
    f"{CONTROL_PREFIX}release": {
        "post": operation(
            "release", "control", "Resume the requests that a fault holds.", responded("Nothing")
        )
    },
    f"{CONTROL_PREFIX}wait": {
        "post": operation(
            "wait",
            "control",
            "Wait for a number of requests.",
            sent("Wait"),
            responded("Count"),
            refusals("400"),
        )
    },
}

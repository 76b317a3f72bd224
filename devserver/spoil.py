"""Faults in the content of a response: from the service's response to the one that is sent."""

import base64
import secrets
from collections.abc import Callable, Mapping
from dataclasses import replace
from typing import Any

from .answer import Answer
from .faults import Fault
from .service import Service

Fields = Mapping[str, Any]
Spoiler = Callable[[Answer, Fields, Service], Answer]

_STALE = {404: "challenge_unknown", 409: "challenge_used", 410: "challenge_expired"}
_STRANGER = "0x000000000000000000000000000000000000dEaD"
_NOT_UTF8 = b'{"text": "\xc3\x28 \xff"'
_HUGE = 8 << 20


def spoil(fault: Fault, genuine: Answer, service: Service) -> Answer:
    """The response to send instead of the service's `genuine` one."""
    spoiler = _SPOILERS.get(fault.kind)
    return genuine if spoiler is None else spoiler(genuine, fault.fields, service)


def scripted_bytes(fields: Fields, default: bytes) -> bytes:
    """The bytes in "body" or "body_base64"."""
    if "body" in fields:
        return str(fields["body"]).encode()
    if "body_base64" in fields:
        return base64.b64decode(fields["body_base64"])
    return default


def _scripted(answer: Answer, fields: Fields, _service: Service) -> Answer:
    answer = replace(answer, status=fields.get("status", answer.status))
    if "json" in fields:
        answer = answer.with_json(fields["json"])
    elif "body" in fields or "body_base64" in fields:
        answer = answer.with_body(scripted_bytes(fields, b""), "text/plain; charset=utf-8")
    headers: list[tuple[str, str]] = []
    for name, value in fields.get("headers", {}).items():
        headers += [(name, item) for item in (value if isinstance(value, list) else [value])]
    return answer.with_headers(headers)


def _status(_answer: Answer, fields: Fields, service: Service) -> Answer:
    return _scripted(Answer().with_json({"error": "scripted"}), fields, service)


def _redirect(_answer: Answer, fields: Fields, _service: Service) -> Answer:
    return Answer(fields.get("status", 302), (("Location", fields["location"]),))


def _empty_body(_answer: Answer, fields: Fields, _service: Service) -> Answer:
    return Answer(fields.get("status", 200))


def _non_json(_answer: Answer, fields: Fields, _service: Service) -> Answer:
    text = scripted_bytes(fields, b"<html>this is not JSON</html>")
    return Answer(fields.get("status", 200)).with_body(text, "text/html; charset=utf-8")


def _not_utf8(_answer: Answer, fields: Fields, _service: Service) -> Answer:
    return Answer(fields.get("status", 200)).with_body(scripted_bytes(fields, _NOT_UTF8), "application/json")


def _huge_body(answer: Answer, fields: Fields, _service: Service) -> Answer:
    size = fields.get("bytes", _HUGE)
    value = answer.json_object()
    if value is None or not fields.get("json", True):
        return answer.with_body(b"x" * size, "text/plain; charset=utf-8")
    padded = answer.with_json(value | {"padding": ""})
    missing = max(0, size - len(padded.body))
    return answer.with_json(value | {"padding": "x" * missing})


def _missing_key(answer: Answer, fields: Fields, _service: Service) -> Answer:
    value = answer.json_object()
    if value is None:
        return answer
    return answer.with_json({key: item for key, item in value.items() if key != fields["key"]})


def _set_key(answer: Answer, key: str, item: Any) -> Answer:
    value = answer.json_object()
    # An error response has no such key, and is not changed.
    if value is None or key not in value:
        return answer
    return answer.with_json(value | {key: item})


def _stale_challenge(_answer: Answer, fields: Fields, _service: Service) -> Answer:
    status = fields.get("status", 409)
    return Answer(status).with_json({"error": _STALE[status]})


def _changed_secret(answer: Answer, fields: Fields, _service: Service) -> Answer:
    other = base64.b64encode(secrets.token_bytes(32)).decode()
    return _set_key(answer, "wallet_secret", fields.get("value", other))


def _changed_claims(answer: Answer, service: Service, changes: Fields, drop: tuple[str, ...] = ()) -> Answer:
    token = (answer.json_object() or {}).get("token")
    if not isinstance(token, str):
        return answer
    claims = {name: claim for name, claim in service.tokens.claims(token).items() if name not in drop}
    return _set_key(answer, "token", service.tokens.sign(claims | dict(changes)))


def _era_old(answer: Answer, _fields: Fields, service: Service) -> Answer:
    current = service.settings.era
    return _changed_claims(answer, service, {"era_number": (1 if current is None else current) - 1})


_SPOILERS: dict[str, Spoiler] = {
    "status": _status,
    "redirect": _redirect,
    "empty_body": _empty_body,
    "non_json": _non_json,
    "not_utf8": _not_utf8,
    "huge_body": _huge_body,
    "chunked": _scripted,
    "cut_body": _scripted,
    "cut_chunked": _scripted,
    "bad_chunk": _scripted,
    "missing_key": _missing_key,
    "set_key": lambda answer, fields, _service: _set_key(answer, fields["key"], fields["value"]),
    "stale_challenge": _stale_challenge,
    "changed_secret": _changed_secret,
    "bad_token": lambda answer, fields, _service: _set_key(
        answer, "token", fields.get("value", "not a token")
    ),
    "wrong_subject": lambda answer, fields, service: _changed_claims(
        answer, service, {"sub": fields.get("subject", _STRANGER)}
    ),
    "era": lambda answer, fields, service: _changed_claims(answer, service, {"era_number": fields["value"]}),
    "era_missing": lambda answer, _fields, service: _changed_claims(answer, service, {}, ("era_number",)),
    "era_old": _era_old,
    "claims": lambda answer, fields, service: _changed_claims(
        answer, service, fields.get("set", {}), tuple(fields.get("drop", ()))
    ),
}

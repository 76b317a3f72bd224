"""The faults by the phase of the exchange that they affect, each with its effect on the client."""

from __future__ import annotations

import base64
import http.client
import ssl
from collections.abc import Callable, Iterator, Mapping
from dataclasses import replace
from typing import Any

from .contract import CHALLENGE, LOGIN, REGISTER, RENAME, VERIFY, Answer, Broken, Exchange, Fault, Lost, Token

LONG = 600
NOT_HTTP = Broken(http.client.BadStatusLine, "is not HTTP/1")
_ALERT = base64.b64encode(b"\x15\x03\x03\x00\x02\x02\x28").decode()
_HTTPS = ("https",)
# Over a kept connection the request would be sent again.
_NEW = {"kind": "pass"}
_OFF_REGISTER = (CHALLENGE, VERIFY, RENAME)
_OFF_RENAME = LOGIN
_OFF_VERIFY = (REGISTER, CHALLENGE, RENAME)


def _same(answer: Answer) -> Exchange:
    return answer


def _gives(exchange: Exchange) -> Callable[[Answer], Exchange]:
    return lambda _answer: exchange


def _connects() -> Iterator[Fault]:
    refused = _gives(Lost(ConnectionRefusedError))
    yield Fault("refused", "connect", refused, refused=True, reaches=False)
    for at in ("accept", "hello"):
        phase = "connect" if at == "accept" else "tls"
        for reset in (False, True):
            name = f"{at}_{'reset' if reset else 'closed'}"
            connect = {"kind": "hang_up", "at": at, "reset": reset}
            yield Fault(name, phase, _gives(Lost(ConnectionError)), connect=connect, reaches=False)
        yield _stalling(f"{at}_stalls", phase, connect={"kind": "stall", "at": at}, reaches=False)


def _stalling(name: str, phase: str, **more: Any) -> Fault:
    return Fault(name, phase, _gives(Lost(TimeoutError)), stalls=True, **more)


def _handshakes() -> Iterator[Fault]:
    for reset in (False, True):
        connect: dict[str, Any] = {"kind": "hang_up", "at": "handshake", "reset": reset}
        name = f"handshake_{'reset' if reset else 'cut'}"
        lost = _gives(Lost(ConnectionError))
        yield Fault(name, "tls", lost, connect=connect, reaches=False, schemes=_HTTPS)
    stall = {"kind": "stall", "at": "handshake"}
    yield _stalling("handshake_stalls", "tls", connect=stall, reaches=False, schemes=_HTTPS)
    broken = _gives(Broken(ssl.SSLError, "TLS with"))
    for name, connect in (
        ("handshake_in_the_clear", {"kind": "babble"}),
        ("handshake_alert", {"kind": "babble", "body_base64": _ALERT}),
    ):
        yield Fault(name, "tls", broken, connect=connect, reaches=False, schemes=_HTTPS)
    for flaw in ("untrusted", "misnamed", "expired"):
        effect = _gives(Broken(ssl.SSLCertVerificationError, "certificate of"))
        connect = {"kind": "certificate", "flaw": flaw}
        yield Fault(f"certificate_{flaw}", "tls", effect, connect=connect, reaches=False, schemes=_HTTPS)
    yield Fault("new_connection", "tls", _same, connect=_NEW, processed=True)


def _scripted(name: str, phase: str, effect: Callable[[Answer], Exchange], kind: str, **fields: Any) -> Fault:
    """A fault of the server itself.

    `at`, `processed` and `schemes` are the catalogue's, the rest is the script's.
    """
    more = {key: fields.pop(key) for key in ("at", "schemes") if key in fields}
    processed = fields.pop("processed", False)
    if processed == "asked":
        fields["processed"] = True
    return Fault(name, phase, effect, {"kind": kind, **fields}, processed=bool(processed), **more)


def _status(
    code: int, name: str = "", *, body: Mapping[str, Any] | None = None, after: str | None = None, **more: Any
) -> Fault:
    said = {"error": "scripted"} if body is None else body
    script: dict[str, Any] = {"status": code, "json": said}
    if after is not None:
        script["headers"] = {"Retry-After": after}
    return _scripted(
        name or f"status_{code}", "headers", _gives(Answer(code, said, after)), "status", **script, **more
    )


def _heads() -> Iterator[Fault]:
    lost = _gives(Lost(ConnectionError))
    for asked in ({}, {"processed": "asked"}):
        suffix = "_after_the_act" if asked else ""
        for kind in ("close", "reset"):
            fault = _scripted(f"{kind}{suffix}", "headers", lost, kind, **asked)
            yield replace(fault, connect=_NEW)
            yield replace(fault, name=f"kept_{kind}{suffix}", effect=_same, resent=True)
    cut = _scripted("cut_off", "headers", lost, "close", close_notify=False, schemes=_HTTPS)
    yield replace(cut, connect=_NEW)
    yield replace(cut, name="kept_cut_off", effect=_same, resent=True)
    yield _scripted("cut_head", "headers", lost, "garbage", body="HTTP/1.1 200 OK\r\nContent-Le")
    yield _scripted("no_http", "headers", _gives(NOT_HTTP), "garbage", body="this is no HTTP at all\r\n\r\n")
    yield _scripted("slow_head", "headers", _same, "delay", seconds=0.02, processed=True)
    held = {"kind": "delay", "seconds": LONG}
    yield _stalling("head_stalls", "headers", script=held)
    yield from map(_status, (500, 502, 503, 504, 405, 418, 599))
    yield _status(403, at=_OFF_REGISTER)
    for code in (404, 409, 410):
        yield _status(code)
    redirect = _gives(Answer(307, None))
    yield _scripted("redirect_307", "headers", redirect, "redirect", status=307, location="/_echo/there")
    yield _scripted("page_502", "headers", _gives(Answer(502, "page")), "non_json", status=502)


def _limits() -> Iterator[Fault]:
    yield _status(429, "limited")
    for after in ("0", "7", "-5", "+3", "1_0", "120", "soon", "1.5", "7 days"):
        yield _status(429, f"limited_{after}", after=after)
    # Longer than the rest of the token's lifetime at its renewal.
    yield _status(429, "limited_for_hours", after="20000")


def _refusals() -> Iterator[Fault]:
    yield _status(400)
    yield _status(401)
    yield _status(403, "forbidden", at=(REGISTER,))
    yield _status(400, "name_refused", body={"error": "too rude"}, at=(RENAME,))
    yield _scripted("page_400", "headers", _gives(Answer(400, "page")), "non_json", status=400)
    for code, reason in ((400, "invite_revoked"), (403, "invite_required"), (403, "invite_unheard_of")):
        yield _status(code, reason, body={"error": reason}, at=(REGISTER,))


def _bodies() -> Iterator[Fault]:
    lost = _gives(Lost(ConnectionError))
    for name, kind, fields in (
        ("body_cut", "cut_body", {"declared": 5000, "sent": 20}),
        ("body_reset", "cut_body", {"reset": True}),
        ("chunk_cut", "cut_chunked", {"sent": 10}),
        ("chunk_reset", "cut_chunked", {"reset": True}),
    ):
        yield _scripted(name, "body", lost, kind, processed=True, **fields)
    cut = {"declared": 5000, "sent": 20, "close_notify": False}
    yield _scripted("body_cut_off", "body", lost, "cut_body", processed=True, schemes=_HTTPS, **cut)
    yield _scripted("chunk_garbage", "body", _gives(NOT_HTTP), "bad_chunk", processed=True)
    yield _scripted("length_too_small", "body", _textual, "cut_body", declared=5, processed=True)
    stall = {"kind": "delay", "seconds": LONG, "at": "body"}
    yield _stalling("body_stalls", "body", script=stall, processed=True)
    slow = {"kind": "delay", "seconds": 0.02, "at": "body"}
    yield Fault("slow_body", "body", _same, slow, processed=True)
    yield _scripted("chunked", "body", _same, "chunked", processed=True)
    yield _scripted("huge", "body", _same, "huge_body", bytes=300_000, processed=True)
    for name, kind, effect in (
        ("empty", "empty_body", _gives(Answer(200, None))),
        ("no_json", "non_json", _gives(Answer(200, "page"))),
        ("not_utf8", "not_utf8", _gives(Answer(200, "text"))),
    ):
        yield _scripted(name, "body", effect, kind)
        yield _scripted(f"{name}_after_the_act", "body", effect, kind, processed="asked")
    yield _scripted("no_content", "body", _gives(Answer(204, None)), "empty_body", status=204)


def _textual(answer: Answer) -> Exchange:
    return replace(answer, body="cut")


def _without(key: str) -> Callable[[Answer], Exchange]:
    def effect(answer: Answer) -> Exchange:
        assert isinstance(answer.body, Mapping)
        return replace(answer, body={name: item for name, item in answer.body.items() if name != key})

    return effect


def _with(key: str, change: Callable[[Any], Any]) -> Callable[[Answer], Exchange]:
    """An error response has no such key, and is not changed."""

    def effect(answer: Answer) -> Exchange:
        assert isinstance(answer.body, Mapping)
        if key not in answer.body:
            return answer
        return replace(answer, body={**answer.body, key: change(answer.body[key])})

    return effect


def _contents() -> Iterator[Fault]:
    for endpoint, keys in (
        (CHALLENGE, ("challenge_id", "message")),
        (VERIFY, ("token", "expires_at", "wallet_secret")),
    ):
        for key in keys:
            yield _scripted(
                f"no_{key}", "body", _without(key), "missing_key", key=key, processed=True, at=(endpoint,)
            )
    odd = _with("message", lambda _message: ["a", "b"])
    yield _scripted(
        "odd_message", "body", odd, "set_key", key="message", value=["a"], processed=True, at=(CHALLENGE,)
    )
    secret = _with("wallet_secret", lambda _secret: "no base64")
    fields = {"key": "wallet_secret", "value": "abc"}
    yield _scripted("odd_secret", "body", secret, "set_key", processed=True, at=(VERIFY,), **fields)
    other = base64.b64encode(b"another secret of thirty-two byt").decode()
    changed = _with("wallet_secret", lambda _secret: "other")
    yield _scripted(
        "other_secret", "body", changed, "changed_secret", value=other, processed=True, at=(VERIFY,)
    )
    for code in (404, 409, 410):
        stale = _gives(Answer(code, {"error": "stale"}))
        yield _scripted(f"stale_{code}", "body", stale, "stale_challenge", status=code, at=(VERIFY,))


def _tokens() -> Iterator[Fault]:
    unreadable = Token(None, readable=False)
    for name, kind, fields, change in (
        ("bad_token", "bad_token", {}, lambda _token: unreadable),
        ("dotted_token", "bad_token", {"value": "a.b.c"}, lambda _token: unreadable),
        ("strange_token", "wrong_subject", {}, lambda token: replace(token, own=False)),
        ("era_old", "era_old", {}, lambda token: replace(token, era=token.era - 1)),
        ("era_missing", "era_missing", {}, lambda token: replace(token, era=None)),
        ("era_ahead", "era", {"value": 10**6}, lambda token: replace(token, era=10**6)),
        ("era_odd", "era", {"value": "abc"}, lambda token: replace(token, era="odd")),
        ("era_true", "era", {"value": True}, lambda token: replace(token, era=None)),
        ("era_negative", "era", {"value": -3}, lambda token: replace(token, era=None)),
    ):
        yield _scripted(name, "body", _with("token", change), kind, processed=True, at=(VERIFY,), **fields)


def _closes() -> Iterator[Fault]:
    yield _scripted("closed_after", "close", _same, "close_after", processed=True)
    yield _scripted(
        "cut_off_after", "close", _same, "close_after", close_notify=False, processed=True, schemes=_HTTPS
    )
    yield _scripted("more_than_asked", "close", _same, "trailing", processed=True)


def _all() -> Iterator[Fault]:
    for part in (_connects, _handshakes, _heads, _limits, _refusals, _bodies, _contents, _tokens, _closes):
        yield from part()


FAULTS = tuple(_all())
PHASES = ("connect", "tls", "headers", "body", "close")


def fitting(endpoint: str, scheme: str) -> list[Fault]:
    """The possible faults of a request to `endpoint`."""
    return [fault for fault in FAULTS if endpoint in fault.at and scheme in fault.schemes]

"""The page of the wire protocol: its exchanges are those of the client and of the development server."""

from __future__ import annotations

import base64
import json
import re
import socket
from collections.abc import Iterator, Mapping
from dataclasses import dataclass
from typing import Any

import pytest
from eth_account import Account
from eth_account.messages import encode_defunct

from devserver.testing import DevServer
from tessaline import auth

from .pages import DOCS, blocks, section

pytestmark = pytest.mark.process

PAGE = DOCS / "protocol.md"
KEY = "1".zfill(64)
BASE = "https://service.example"


@dataclass(frozen=True)
class Message:
    """An HTTP request or response of the page."""

    first: str
    headers: Mapping[str, str]
    body: dict[str, Any]
    text: str

    @staticmethod
    def of(text: str) -> Message:
        head, _, body = text.rstrip("\n").partition("\n\n")
        first, *lines = head.splitlines()
        return Message(first, dict(line.split(": ", 1) for line in lines), json.loads(body), body)

    @property
    def path(self) -> str:
        return self.first.split()[1]

    @property
    def status(self) -> int:
        return int(self.first.split()[1])


def messages() -> list[Message]:
    return [Message.of(block.text) for block in blocks(PAGE) if block.language == "http"]


REQUESTS = {message.path: message for message in messages() if message.first.startswith("POST ")}
ANSWERS = [message for message in messages() if message.first.startswith("HTTP/1.1 ")]
REGISTERED, REFUSED, CHALLENGED, VERIFIED, RENAMED = ANSWERS


@pytest.fixture(scope="module")
def started() -> Iterator[DevServer]:
    with DevServer() as server:
        yield server


@pytest.fixture
def server(started: DevServer) -> DevServer:
    started.reset()
    return started


def raw(server: DevServer, request: Message, **changes: Any) -> Message:
    """Sends the request of the page, with other values in its body or token, byte by byte."""
    token = changes.pop("token", None)
    body = json.dumps(request.body | changes) if changes else request.text
    headers = {**request.headers, "Host": f"127.0.0.1:{server.port}", "Content-Length": str(len(body))}
    if token is not None:
        headers["Authorization"] = f"Bearer {token}"
    lines = [request.first, *(f"{name}: {value}" for name, value in headers.items()), "Connection: close"]
    with socket.create_connection(("127.0.0.1", server.port), timeout=20) as connection:
        connection.sendall(("\r\n".join(lines) + "\r\n\r\n" + body).encode("ascii"))
        answer = b"".join(iter(lambda: connection.recv(65536), b""))
    head, _, payload = answer.decode("ascii").partition("\r\n\r\n")
    first, *fields = head.split("\r\n")
    named = {name.title(): value for name, value in (field.split(": ", 1) for field in fields)}
    return Message(first, named, json.loads(payload), payload)


def assert_alike(answer: Message, shown: Message) -> None:
    assert (answer.first, answer.headers["Content-Type"]) == (shown.first, shown.headers["Content-Type"])
    assert [(key, type(value)) for key, value in answer.body.items()] == [
        (key, type(value)) for key, value in shown.body.items()
    ]


def signature_of(message: str) -> str:
    return "0x" + str(Account.from_key(KEY).sign_message(encode_defunct(text=message)).signature.hex())


def claims_of(token: str) -> dict[str, Any]:
    payload = token.split(".")[1]
    claims: dict[str, Any] = json.loads(base64.urlsafe_b64decode(payload + "=" * (-len(payload) % 4)))
    return claims


def test_the_login_is_one_that_the_development_server_takes(server: DevServer) -> None:
    assert_alike(raw(server, REQUESTS["/auth/register"]), REGISTERED)
    challenge = raw(server, REQUESTS["/auth/challenge"])
    assert_alike(challenge, CHALLENGED)
    answer = {
        "challenge_id": challenge.body["challenge_id"],
        "signature": signature_of(challenge.body["message"]),
    }
    grant = raw(server, REQUESTS["/auth/verify"], **answer)
    assert_alike(grant, VERIFIED)
    assert raw(server, REQUESTS["/auth/verify"], **answer).status == 409
    assert claims_of(grant.body["token"]).keys() == claims_of(VERIFIED.body["token"]).keys()
    renamed = raw(server, REQUESTS["/api/profile/display_name"], token=grant.body["token"])
    assert_alike(renamed, RENAMED)
    assert renamed.body == RENAMED.body


def test_a_refusal_is_one_of_the_development_server(server: DevServer) -> None:
    server.settings(invite_only=True)
    refused = raw(server, REQUESTS["/auth/register"])
    assert_alike(refused, REFUSED)
    assert refused.body == REFUSED.body


def test_the_requests_are_those_of_the_client() -> None:
    sent: list[tuple[str, str, dict[str, str], str]] = []
    answers = {
        "/auth/register": REGISTERED,
        "/auth/challenge": CHALLENGED,
        "/auth/verify": VERIFIED,
        "/api/profile/display_name": RENAMED,
    }

    def transport(
        method: str, url: str, *, headers: Mapping[str, str] | None = None, body: str | bytes | None = None
    ) -> tuple[int, dict[str, str], bytes]:
        path = url.removeprefix(BASE)
        sent.append((method, path, dict(headers or {}), str(body)))
        return answers[path].status, {}, answers[path].text.encode()

    with auth.AuthManager(KEY, BASE, _transport=transport) as manager:
        manager.authenticate()
        assert manager.get_wallet_secret() == base64.b64decode(VERIFIED.body["wallet_secret"])
        assert manager.set_display_name("Ada Lovelace") == RENAMED.body
    assert [path for _, path, _, _ in sent] == list(REQUESTS)
    for method, path, headers, body in sent:
        shown = REQUESTS[path]
        assert (f"{method} {path} HTTP/1.1", body) == (shown.first, shown.text)
        framing = {"Host": "service.example", "Content-Length": str(len(body))}
        assert headers | framing == shown.headers


def test_the_headers_of_the_client_are_told(server: DevServer) -> None:
    with auth.AuthManager(KEY, server.url) as manager:
        manager.authenticate()
        manager.set_display_name("Ada Lovelace")
    told = {name.lower() for message in REQUESTS.values() for name in message.headers}
    told |= {
        name.lower() for name in re.findall(r"`([A-Z][\w-]+): ", section(PAGE, "What every request has"))
    }
    assert {name for entry in server.requests for name in entry["header_names"]} == told


def test_the_example_holds_together() -> None:
    address = Account.from_key(KEY).address
    assert REQUESTS["/auth/register"].body["wallet_address"] == address.lower()
    message, signature = CHALLENGED.body["message"], REQUESTS["/auth/verify"].body["signature"]
    assert Account.recover_message(encode_defunct(text=message), signature=signature) == address
    assert signature == signature_of(message)
    assert CHALLENGED.body["challenge_id"] == REQUESTS["/auth/verify"].body["challenge_id"]
    claims = claims_of(VERIFIED.body["token"])
    assert (claims["sub"], claims["exp"]) == (address, VERIFIED.body["expires_at"])
    assert len(base64.b64decode(VERIFIED.body["wallet_secret"], validate=True)) == 32


# The errors in the page's tables, by endpoint, status and reason.
TOLD = [
    ("register", 400, None, auth.AuthError, "invalid_address"),
    ("register", 400, "invite_invalid", auth.RegistrationError, "invite_invalid"),
    ("register", 401, None, auth.AuthError, "unauthorized"),
    ("register", 403, "invite_revoked", auth.RegistrationError, "invite_revoked"),
    ("register", 403, None, auth.AuthError, "unauthorized"),
    ("challenge", 400, None, auth.AuthError, "invalid_request"),
    ("challenge", 401, None, auth.AuthError, "unauthorized"),
    ("verify", 400, None, auth.AuthError, "invalid_request"),
    ("verify", 401, None, auth.AuthError, "signature_mismatch"),
    ("verify", 404, None, auth.NetworkError, "stale authentication challenge after 3 attempts"),
    ("verify", 409, None, auth.NetworkError, "stale authentication challenge after 3 attempts"),
    ("verify", 410, None, auth.NetworkError, "stale authentication challenge after 3 attempts"),
    ("display_name", 400, None, auth.ProfileError, "validation_failed"),
    ("display_name", 401, None, auth.AuthError, "profile_unauthorized"),
    ("display_name", 429, None, auth.ProfileError, "rate_limited"),
]


@pytest.mark.parametrize(("endpoint", "status", "error", "kind", "reason"), TOLD)
def test_refusals_are_taken_as_told(
    endpoint: str, status: int, error: str | None, kind: type[Exception], reason: str
) -> None:
    good = {"register": REGISTERED, "challenge": CHALLENGED, "verify": VERIFIED, "display_name": RENAMED}

    def transport(
        method: str, url: str, *, headers: Mapping[str, str] | None = None, body: str | bytes | None = None
    ) -> tuple[int, dict[str, str], bytes]:
        name = url.rpartition("/")[2]
        if name == endpoint:
            return status, {}, json.dumps({"error": error or "no"}).encode()
        return 200, {}, good[name].text.encode()

    with auth.AuthManager(KEY, BASE, _transport=transport) as manager, pytest.raises(kind) as caught:
        manager.authenticate()
        manager.set_display_name("Ada Lovelace")
    assert str(caught.value) == reason

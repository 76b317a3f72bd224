"""A client of the service that shares no code with the server: http.client, raw sockets and eth_account."""

import base64
import http.client
import json
import socket
import ssl
from collections.abc import Mapping
from dataclasses import dataclass
from types import TracebackType
from typing import Any, Self
from urllib.parse import urlsplit

from eth_account import Account
from eth_account.messages import encode_defunct

from devserver.testing import DevServer

REGISTER = "/auth/register"
CHALLENGE = "/auth/challenge"
VERIFY = "/auth/verify"
DISPLAY_NAME = "/api/profile/display_name"

SECONDS = 5.0


@dataclass(frozen=True)
class Reply:
    status: int
    headers: dict[str, str]
    body: bytes

    @property
    def json(self) -> Any:
        return json.loads(self.body)

    @property
    def error(self) -> Any:
        assert self.headers["Content-Type"].startswith("application/json")
        return self.json["error"]


def claims_of(token: str) -> dict[str, Any]:
    payload = token.split(".")[1]
    claims = json.loads(base64.urlsafe_b64decode(payload + "=" * (-len(payload) % 4)))
    assert isinstance(claims, dict)
    return claims


def trusting(server: DevServer) -> ssl.SSLContext:
    assert server.ca_file is not None
    return ssl.create_default_context(cafile=server.ca_file)


class Client:
    """One wallet on one kept-alive connection."""

    def __init__(self, server: DevServer, account: Any = None) -> None:
        self.account = account or Account.create()
        self.address: str = self.account.address.lower()
        url = urlsplit(server.url)
        assert url.hostname is not None
        self.connection: http.client.HTTPConnection
        if url.scheme == "https":
            context = trusting(server)
            self.connection = http.client.HTTPSConnection(
                url.hostname, url.port, timeout=SECONDS, context=context
            )
        else:
            self.connection = http.client.HTTPConnection(url.hostname, url.port, timeout=SECONDS)

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.connection.close()

    def request(
        self, method: str, path: str, body: bytes | None = None, headers: Mapping[str, str] | None = None
    ) -> Reply:
        try:
            self.connection.request(method, path, body, dict(headers or {}))
            response = self.connection.getresponse()
            headers = {name.title(): value for name, value in response.getheaders()}
            return Reply(response.status, headers, response.read())
        except (OSError, http.client.HTTPException):
            self.connection.close()
            raise

    def post(self, path: str, value: Any, headers: Mapping[str, str] | None = None) -> Reply:
        merged = {"Content-Type": "application/json", **(headers or {})}
        return self.request("POST", path, json.dumps(value).encode(), merged)

    def register(self, **extra: Any) -> Reply:
        return self.post(REGISTER, {"wallet_address": self.address, **extra})

    def challenge(self) -> Reply:
        return self.post(CHALLENGE, {"wallet_address": self.address})

    def sign(self, message: str) -> str:
        signature = self.account.sign_message(encode_defunct(text=message)).signature
        return "0x" + bytes(signature).hex()

    def answer(self, challenge: Mapping[str, str]) -> Reply:
        signature = self.sign(challenge["message"])
        return self.post(VERIFY, {"challenge_id": challenge["challenge_id"], "signature": signature})

    def verify(self) -> Reply:
        """Request a challenge and verify it."""
        return self.answer(self.challenge().json)

    def log_in(self) -> Reply:
        """Register, request a challenge and verify it."""
        assert self.register().status == 200
        return self.verify()

    def name(self, display_name: Any, token: str) -> Reply:
        headers = {"Authorization": f"Bearer {token}"}
        return self.post(DISPLAY_NAME, {"display_name": display_name}, headers)


def end_of(connection: socket.socket) -> tuple[bytes, str]:
    """The remaining bytes, and "closed" or "reset"."""
    received = b""
    while True:
        try:
            chunk = connection.recv(65536)
        except ConnectionResetError:
            return received, "reset"
        if not chunk:
            return received, "closed"
        received += chunk


def raw_exchange(server: DevServer, path: str = REGISTER, body: bytes = b"{}") -> tuple[bytes, str]:
    """Send one POST over a bare socket; returns the response's bytes, and "closed" or "reset"."""
    with socket.create_connection(("127.0.0.1", server.port), SECONDS) as connection:
        head = f"POST {path} HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
        connection.sendall(f"{head}Content-Length: {len(body)}\r\n\r\n".encode() + body)
        return end_of(connection)

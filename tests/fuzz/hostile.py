"""A server with scripted responses, and successful ones otherwise."""

from __future__ import annotations

import base64
import json
from collections import deque
from collections.abc import Callable
from typing import Any

REGISTER, CHALLENGE, VERIFY = "/auth/register", "/auth/challenge", "/auth/verify"
SECRET, OTHER_SECRET = bytes(range(100, 132)), bytes(range(32))
STRANGER = "0x" + "00" * 20

KINDS: tuple[type[BaseException], ...] = (
    *(ConnectionError, ConnectionResetError, TimeoutError, OSError, ValueError, KeyError, RuntimeError),
    *(MemoryError, StopIteration, SystemExit, KeyboardInterrupt, GeneratorExit),
)
EXCEPTIONS = {kind.__name__: kind for kind in KINDS}
ODD: tuple[Any, ...] = (
    None,
    (200, {}),
    (200, {}, b"{}", 1),
    ("200", {}, b"{}"),
    (200.0, {}, b"{}"),
    (200.5, {}, b"{}"),
    (10**40, {}, b"{}"),
    (True, {}, b"{}"),
    (None, {}, b"{}"),
    (200, None, b"{}"),
    (429, None, b"{}"),
    (429, {"Retry-After": 7.5}, b"{}"),
    (429, {"Retry-After": None}, b"{}"),
    (429, {"Retry-After": [7]}, b"{}"),
    (200, {}, "{}"),
    (200, {}, bytearray(b"{}")),
    (200, {}, None),
    (200, {}, 5),
    [200, {}, b"{}"],
    iter((200, {}, b"{}")),
)


def segment(data: bytes) -> str:
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode()


def token_text(subject: str, era: int | None, number: int) -> str:
    claims: dict[str, Any] = {"sub": subject, "jti": f"grant-{number}"}
    if era is not None:
        claims["era_number"] = era
    return f"{segment(b'{}')}.{segment(json.dumps(claims).encode())}.{segment(b'signature of the server')}"


class Hostile:
    """An HttpTransport. Each entry of the script serves one request."""

    def __init__(self, address: str) -> None:
        self.address = address
        self.era: int | None = 1
        self.secret = SECRET
        self.script: deque[Callable[[], Any]] = deque()
        self.before: list[Callable[[], None]] = []
        self.raised: list[BaseException] = []
        self.granted: list[str] = []
        self.requests = 0

    def __call__(self, method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        self.requests += 1
        path = url.removeprefix("https://auth.example.test")
        assert method == "POST" and path.startswith("/")
        sent = json.loads(body)
        before, self.before = self.before, []
        for act in before:
            act()
        if self.script:
            return self.script.popleft()()
        return self.answer_well(path, sent)

    def answer_well(self, path: str, sent: Any) -> Any:
        value: Any = {"ok": True}
        if path == CHALLENGE:
            value = {"challenge_id": "c", "message": "Sign in"}
        elif path == VERIFY:
            assert len(sent["signature"]) == 132
            value = {"token": self.grant(), "expires_at": 0, "wallet_secret": self.encoded(self.secret)}
        return 200, {}, json.dumps(value).encode()

    def grant(self, era: int | None = None, subject: str | None = None) -> str:
        token = token_text(subject or self.address, self.era if era is None else era, len(self.granted))
        self.granted.append(token)
        return token

    @staticmethod
    def encoded(secret: bytes) -> str:
        return base64.b64encode(secret).decode()

    def filled_in(self, body: str) -> bytes:
        """The body, with the marks replaced by what the server knows."""
        for mark, make in {
            "$TOKEN": self.grant,
            "$OLD": lambda: self.grant(era=max(1, self.era or 1) - 1),
            "$NEW": lambda: self.grant(era=(self.era or 0) + 1),
            "$STRANGE": lambda: self.grant(subject=STRANGER),
            "$SECRET": lambda: self.encoded(self.secret),
            "$OTHER": lambda: self.encoded(OTHER_SECRET),
            "$GRANT": lambda: f'{{"token":"{self.grant()}","expires_at":0,"wallet_secret":"$SECRET"}}',
        }.items():
            if mark in body:
                body = body.replace(mark, make())  # type: ignore[no-untyped-call]
        body = body.replace("$SECRET", self.encoded(self.secret))
        return body.encode("utf-8", "surrogateescape")

    def will_answer(self, status: int, headers: dict[str, str], body: str) -> None:
        self.script.append(lambda: (status, headers, self.filled_in(body)))

    def will_raise(self, kind: type[BaseException]) -> None:
        def fail() -> Any:
            error = kind("of the transport")
            self.raised.append(error)
            raise error

        self.script.append(fail)

    def will_be_odd(self, which: int) -> None:
        odd = ODD[which % len(ODD)]
        self.script.append(lambda: odd)

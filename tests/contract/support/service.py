"""An HttpTransport that simulates the service without a socket."""

from __future__ import annotations

import base64
import json
import threading
from collections.abc import Callable
from typing import Any

import canary
from tests.shared.threads import DEADLINE

BASE = "https://auth.example.test"
REGISTER = "/auth/register"
CHALLENGE = "/auth/challenge"
VERIFY = "/auth/verify"
DISPLAY_NAME = "/api/profile/display_name"

SECRET = bytes(range(100, 132))


def token_text(subject: str, number: int, era: int | None) -> str:
    """A token with its wallet, and with its era if it has one."""
    claims: dict[str, Any] = {"sub": subject, "jti": f"grant-{number}"}
    if era is not None:
        claims["era_number"] = era
    parts = (b'{"alg":"none"}', json.dumps(claims).encode(), b"signature-of-the-service")
    return ".".join(base64.urlsafe_b64encode(part).rstrip(b"=").decode() for part in parts)


def era_of(token: str) -> int:
    """The era in a token; 0 for none."""
    payload = token.split(".")[1]
    claims = json.loads(base64.urlsafe_b64decode(payload + "=" * (-len(payload) % 4)))
    return int(claims.get("era_number", 0))


def answer(status: int, value: Any = None, **headers: str) -> tuple[int, dict[str, str], bytes]:
    body = b"" if value is None else json.dumps(value).encode()
    return status, {name.replace("_", "-"): text for name, text in headers.items()}, body


class Gate:
    """Holds every request until the test opens it."""

    def __init__(self) -> None:
        self._entered = threading.Semaphore(0)
        self._open = threading.Event()

    def __call__(self) -> None:
        self._entered.release()
        if not self._open.wait(DEADLINE):
            raise AssertionError("a gate was never opened")

    def reached(self) -> Gate:
        assert self._entered.acquire(timeout=DEADLINE), "nobody came to the gate"
        return self

    def open(self) -> None:
        self._open.set()


class Service:
    """All responses are successful by default.

    `fault` is called with the path before each response: what it raises is raised by the transport, what
    it returns (unless None) is the response.
    """

    def __init__(self, era: int | None = None) -> None:
        self.era = era
        self.secret = SECRET
        self.subject: str | None = None
        self.message = "Sign in\nnonce 5f2c"
        self.profile_answer: Any = {"ok": True}
        self.fault: Callable[[str], Any] | None = None
        self.gates: dict[str, Gate] = {}
        self.paths: list[str] = []
        self.tokens: list[str] = []
        self.signatures: list[str] = []
        self._lock = threading.Lock()

    def hold(self, path: str) -> Gate:
        gate = self.gates[path] = Gate()
        return gate

    def let_go(self) -> None:
        """Open every gate and remove them."""
        gates, self.gates = self.gates, {}
        for gate in gates.values():
            gate.open()

    def count(self, path: str) -> int:
        return self.paths.count(path)

    def __call__(self, method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        assert method == "POST" and url.startswith(BASE)
        path = url[len(BASE) :]
        sent = json.loads(body)
        with self._lock:
            self.paths.append(path)
        gate = self.gates.get(path)
        if gate is not None:
            gate()
        fault = self.fault
        if fault is not None:
            given = fault(path)
            if given is not None:
                return given
        if path == REGISTER:
            return answer(201, {"status": "registered"})
        if path == CHALLENGE:
            # The challenge contains the address, so that verify needs no state.
            return answer(200, {"challenge_id": sent["wallet_address"], "message": self.message})
        if path == VERIFY:
            return answer(200, self.grant(sent["challenge_id"], sent["signature"]))
        assert path == DISPLAY_NAME, path
        return answer(200, self.profile_answer)

    def grant(self, address: str, signature: str = "") -> dict[str, Any]:
        with self._lock:
            self.signatures.append(signature)
            token = token_text(self.subject or address, len(self.tokens) + 1, self.era)
            self.tokens.append(token)
        for kind, value in (("token", token), ("signature", signature), ("wallet secret", self.secret)):
            canary.plant(kind, value)
        return {
            "token": token,
            "expires_at": 4_000_000_000,
            "wallet_secret": base64.b64encode(self.secret).decode(),
        }


def always_raises(error: BaseException) -> Callable[[str], Any]:
    def fault(path: str) -> Any:
        # All tests share many of them, and they would keep the frames of each time that they are raised.
        error.__context__ = None
        raise error.with_traceback(None)

    return fault


def always_answers(path: str, status: int, value: Any = None) -> Callable[[str], Any]:
    def fault(asked: str) -> Any:
        return answer(status, value) if asked == path else None

    return fault

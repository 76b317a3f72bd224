"""A server in memory: an HttpTransport with register, challenge, verify and the profile endpoint."""

from __future__ import annotations

import base64
import json
import threading
from collections import defaultdict, deque
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any

from eth_account import Account
from eth_account.messages import encode_defunct

import canary
from tests.shared.threads import DEADLINE

from .tokens import issued

BASE = "https://auth.example.test"
REGISTER = "/auth/register"
CHALLENGE = "/auth/challenge"
VERIFY = "/auth/verify"
DISPLAY_NAME = "/api/profile/display_name"


@dataclass
class Answer:
    """A response of the server; `body` is JSON unless it is bytes."""

    status: int = 200
    body: Any = b""
    headers: dict[str, str] = field(default_factory=dict)

    def triple(self) -> tuple[int, dict[str, str], bytes]:
        body = self.body if isinstance(self.body, bytes) else json.dumps(self.body).encode("utf-8")
        return self.status, dict(self.headers), body


@dataclass
class Call:
    """One request as the transport received it."""

    method: str
    url: str
    headers: dict[str, str]
    raw_body: Any
    thread: threading.Thread

    @property
    def path(self) -> str:
        assert self.url.startswith(BASE), self.url
        return self.url[len(BASE) :]

    @property
    def body(self) -> Any:
        return None if self.raw_body is None else json.loads(self.raw_body)


class Gate:
    """Holds requests to one endpoint until the test releases them."""

    def __init__(self) -> None:
        self.entered = threading.Event()
        self._open = threading.Event()

    def pass_through(self) -> None:
        self.entered.set()
        if not self._open.wait(DEADLINE):
            raise AssertionError("a held request was never released")

    def reached(self, timeout: float = DEADLINE) -> Gate:
        assert self.entered.wait(timeout), "no request reached the gate"
        return self

    def release(self) -> None:
        self._open.set()


Step = Answer | BaseException | Callable[[Call], Any]


class FakeServer:
    """Scripted responses per path first; after these, those of a well-behaved server."""

    def __init__(self, *, recover: bool = False) -> None:
        self.recover = recover
        self.calls: list[Call] = []
        self.era: Any = None
        self.subject: str | None = None
        self.secret = bytes(range(32))
        self.message = "Sign in to the service\nnonce {n}"
        self.tokens: list[str] = []
        self.signers: list[str] = []
        self.display_name_reply: Any = {"ok": True}
        self._script: dict[str, deque[Step]] = defaultdict(deque)
        self._always: dict[str, Step] = {}
        self._gates: dict[str, Gate] = {}
        self._challenges: dict[str, tuple[str, str]] = {}
        self._used: set[str] = set()
        self._lock = threading.Lock()

    # Scripting

    def script(self, path: str, *steps: Step) -> None:
        """Queue responses for the next requests to `path`."""
        self._script[path].extend(steps)

    def always(self, path: str, step: Step | None) -> None:
        """Give this response to every request to `path` (None: behave well again)."""
        if step is None:
            self._always.pop(path, None)
        else:
            self._always[path] = step

    def hold(self, path: str) -> Gate:
        """Hold requests to `path` at a gate from now on."""
        gate = self._gates[path] = Gate()
        return gate

    def unhold(self, path: str) -> None:
        self._gates.pop(path).release()

    def release_all(self) -> None:
        for gate in list(self._gates.values()):
            gate.release()
        self._gates.clear()

    # What happened

    @property
    def paths(self) -> list[str]:
        return [call.path for call in self.calls]

    def count(self, path: str) -> int:
        return self.paths.count(path)

    def last(self, path: str) -> Call:
        return [call for call in self.calls if call.path == path][-1]

    # The transport

    def __call__(self, method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        call = Call(method, url, dict(headers or {}), body, threading.current_thread())
        with self._lock:
            self.calls.append(call)
            gate = self._gates.get(call.path)
        if gate is not None:
            gate.pass_through()
        with self._lock:
            queue = self._script[call.path]
            step = queue.popleft() if queue else self._always.get(call.path)
        if step is None:
            return self._behave(call).triple()
        if callable(step) and not isinstance(step, Answer):
            step = step(call)
        if step is None:
            return self._behave(call).triple()
        if isinstance(step, BaseException):
            raise step
        if isinstance(step, Answer):
            return step.triple()
        return step

    def _behave(self, call: Call) -> Answer:
        handlers = {
            REGISTER: lambda: Answer(201, {"status": "registered"}),
            CHALLENGE: lambda: self._challenge(call),
            VERIFY: lambda: self._verify(call),
            DISPLAY_NAME: lambda: Answer(200, self.display_name_reply),
        }
        return handlers[call.path]()

    def _challenge(self, call: Call) -> Answer:
        with self._lock:
            challenge_id = f"challenge-{len(self._challenges) + 1}"
            message = self.message.replace("{n}", str(len(self._challenges) + 1))
            self._challenges[challenge_id] = (call.body["wallet_address"], message)
        return Answer(200, {"challenge_id": challenge_id, "message": message})

    def _verify(self, call: Call) -> Answer:
        challenge_id, signature = call.body["challenge_id"], call.body["signature"]
        with self._lock:
            if challenge_id not in self._challenges:
                return Answer(404, {"error": "challenge_unknown"})
            if challenge_id in self._used:
                return Answer(409, {"error": "challenge_used"})
            self._used.add(challenge_id)
            address, message = self._challenges[challenge_id]
        canary.plant("signature", signature)
        assert signature.startswith("0x") and len(signature) == 132 and signature == signature.lower()
        if self.recover:
            signer = Account.recover_message(encode_defunct(text=message), signature=signature).lower()
            self.signers.append(signer)
            if signer != address:
                return Answer(401, {"error": "signature_mismatch"})
        return Answer(200, self.verified(address))

    def verified(self, address: str, **changes: Any) -> dict[str, Any]:
        """The body of a successful response of verify; each has a new token."""
        with self._lock:
            number = len(self.tokens) + 1
            token = issued(self.subject or address, self.era, jti=f"token-{number}")
            self.tokens.append(token)
        canary.plant("wallet secret", self.secret)
        body: dict[str, Any] = {
            "token": token,
            "expires_at": 4_000_000_000 + number,
            "wallet_secret": base64.b64encode(self.secret).decode("ascii"),
        }
        body.update(changes)
        return body

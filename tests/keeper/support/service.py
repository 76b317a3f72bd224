"""A service in memory for any number of wallets, with faults by endpoint and by wallet."""

from __future__ import annotations

import base64
import contextlib
import json
import threading
from collections.abc import Callable, Iterator
from dataclasses import dataclass, field
from typing import Any

import canary
from tests.contract.support.service import (
    BASE,
    CHALLENGE,
    REGISTER,
    SECRET,
    VERIFY,
    answer,
    token_text,
)
from tests.shared.threads import DEADLINE

LIFETIME = 86400.0
LOGIN_THREAD = "tessaline-login"

type Answer = tuple[int, dict[str, str], bytes]
type Fault = Callable[["Asked"], Answer | None]


class Gate:
    """Holds every request until the test opens it, at most `patience` seconds."""

    def __init__(self, patience: float) -> None:
        self._patience = patience
        self._entered = threading.Semaphore(0)
        self._open = threading.Event()

    def __call__(self) -> None:
        self._entered.release()
        if not self._open.wait(self._patience):
            raise TimeoutError("a gate was never opened")

    def reached(self) -> None:
        """Wait until one more has arrived."""
        assert self._entered.acquire(timeout=DEADLINE), "nobody came to the gate"

    def open(self) -> None:
        self._open.set()


@dataclass(frozen=True)
class Asked:
    """One request. at: the service's clock. login_threads: how many there are at this time."""

    path: str
    address: str
    at: float
    login_threads: int


@dataclass(frozen=True)
class Granted:
    """One issued token."""

    address: str
    token: str = field(repr=False)
    era: int | None
    at: float


class Service:
    """All responses are successful by default.

    fault: called for every request; what it raises is raised by the transport, what it returns (unless None)
        is the response. wallet_faults: the same for the requests of one address, called first.
    gate: holds every request until it is opened; wallet_gates: those of one address.
    on_request: called with each request, outside the service's lock, before anything else.
    """

    def __init__(self, clock: Callable[[], float], era: int | None = 1) -> None:
        self.clock = clock
        self.era = era
        self.secret = SECRET
        self.subject: str | None = None
        self.fault: Fault | None = None
        self.wallet_faults: dict[str, Fault] = {}
        self.gate: Gate | None = None
        self.wallet_gates: dict[str, Gate] = {}
        self.on_request: Callable[[Asked], None] | None = None
        self.asked: list[Asked] = []
        self.granted: list[Granted] = []
        self.under_way: list[str] = []
        self.most_at_once = 0
        self._lock = threading.Lock()
        self._threads_before = set(threading.enumerate())

    # For tests

    def hold(self, address: str | None = None, patience: float = DEADLINE) -> Gate:
        gate = Gate(patience)
        if address is None:
            self.gate = gate
        else:
            self.wallet_gates[address] = gate
        return gate

    def let_go(self) -> None:
        """Open every gate and remove them."""
        gates = [*self.wallet_gates.values(), self.gate]
        self.gate, self.wallet_gates = None, {}
        for gate in gates:
            if gate is not None:
                gate.open()

    def heal(self) -> None:
        self.fault = None
        self.wallet_faults = {}

    def count(self, path: str, address: str | None = None) -> int:
        return sum(one.path == path and address in (None, one.address) for one in self.asked)

    def tokens(self, address: str) -> list[str]:
        """The wallet's tokens, oldest first."""
        return [one.token for one in self.granted if one.address == address]

    def newest(self, address: str) -> str:
        return self.tokens(address)[-1]

    def attempts(self, address: str | None = None) -> list[float]:
        """When logins began. A login tries three times, all at one time if the clock stands still."""
        times: list[float] = []
        for one in list(self.asked):
            if one.path == REGISTER and address in (None, one.address) and one.at not in times:
                times.append(one.at)
        return times

    # For managers

    def __call__(self, method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        assert method == "POST" and url.startswith(BASE)
        path = url[len(BASE) :]
        sent = json.loads(body)
        # The challenge contains the address, so that verify needs no state.
        address = sent["challenge_id"] if path == VERIFY else sent["wallet_address"]
        newcomers = set(threading.enumerate()) - self._threads_before
        workers = sum(thread.name.startswith(LOGIN_THREAD) for thread in newcomers)
        asked = Asked(path, address, self.clock(), workers)
        with self._counted(asked):
            if self.on_request is not None:
                self.on_request(asked)
            for gate in (self.wallet_gates.get(address), self.gate):
                if gate is not None:
                    gate()
            for fault in (self.wallet_faults.get(address), self.fault):
                given = fault(asked) if fault is not None else None
                if given is not None:
                    return given
            return self._well(asked, sent)

    @contextlib.contextmanager
    def _counted(self, asked: Asked) -> Iterator[None]:
        with self._lock:
            self.asked.append(asked)
            self.under_way.append(asked.address)
            self.most_at_once = max(self.most_at_once, len(self.under_way))
        try:
            yield
        finally:
            with self._lock:
                self.under_way.remove(asked.address)

    def _well(self, asked: Asked, sent: dict[str, Any]) -> Answer:
        if asked.path == REGISTER:
            return answer(201, {"status": "registered"})
        if asked.path == CHALLENGE:
            return answer(200, {"challenge_id": asked.address, "message": "Sign in\nnonce 5f2c"})
        assert asked.path == VERIFY, asked.path
        canary.plant("signature", sent["signature"])
        return answer(200, self._grant(asked.address))

    def _grant(self, address: str) -> dict[str, Any]:
        with self._lock:
            token = token_text(self.subject or address, len(self.granted) + 1, self.era)
            self.granted.append(Granted(address, token, self.era, self.clock()))
        canary.plant("token", token)
        canary.plant("wallet secret", self.secret)
        secret = base64.b64encode(self.secret).decode()
        return {"token": token, "expires_at": 4_000_000_000, "wallet_secret": secret}

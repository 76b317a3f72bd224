"""A simulated server with outages: the environment of one manager for years."""

from __future__ import annotations

import base64
import json
import random
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

from eth_account import Account
from eth_account.messages import encode_defunct

DAY = 86400.0
WELL = "well"

type Triple = tuple[int, dict[str, str], bytes]

# Every so many signatures, the signer is verified.
_PROVED = 400
_NETWORK_ERRORS = (ConnectionRefusedError, ConnectionResetError, ConnectionError, BrokenPipeError)
_BODIES = (b"", b"<html>no</html>", b"\xc3\x28", b"[]", b"{}", b'{"token": 1}', b"nul")
_KINDS = ("down", "silent", "busy", "errors", "limited", "garbled", "stale", "flaky", "refusing")
_REFRESHED_AFTER = ("1", "7", "60", "600", "3600", "soon", "")


@dataclass
class Spell:
    """An outage from `begins` until `ends`."""

    kind: str
    begins: float
    ends: float
    after: str


class World:
    """The service as seen by one wallet.

    now: true time, in seconds since the start. address: of the wallet.
    faults: how many requests had one. spoiled: whether one had since this was last set to False.
    """

    def __init__(self, chance: random.Random, now: Callable[[], float]) -> None:
        self._chance = chance
        self._now = now
        self.address = ""
        self.era = 1
        self.requests = 0
        self.faults = 0
        self.spoiled = False
        self._challenge: str | None = None
        self._numbers = 0
        self._spell = self._next_spell(0.5 * DAY)
        secret = chance.randbytes(32)
        self._secret = base64.b64encode(secret).decode()

    def is_well(self) -> bool:
        """Whether a request now meets no fault."""
        return self._weather() is None

    def _next_spell(self, after: float) -> Spell:
        chance = self._chance
        begins = after + chance.expovariate(1 / (1.5 * DAY))
        length = min(12 * 3600.0, chance.lognormvariate(8.3, 1.1))
        return Spell(chance.choice(_KINDS), begins, begins + length, chance.choice(_REFRESHED_AFTER))

    def _weather(self) -> Spell | None:
        now = self._now()
        while self._spell.ends <= now:
            self._spell = self._next_spell(self._spell.ends)
        return self._spell if self._spell.begins <= now else None

    def answer(self, path: str, body: str) -> Triple:
        """The response to one request; raises what a transport would."""
        self.requests += 1
        spell = self._weather()
        if spell is not None:
            answer = self._spoil(spell, path)
            if answer is not None:
                self.faults += 1
                self.spoiled = True
                return answer
        return self._serve(path, json.loads(body))

    def _spoil(self, spell: Spell, path: str) -> Triple | None:
        """The effect of an outage on a request; None if it succeeds."""
        chance, kind = self._chance, spell.kind
        if kind == "flaky":
            if chance.random() < 0.5:
                return None
            kind = chance.choice(("down", "silent", "busy", "errors", "limited"))
        if kind in ("down", "silent"):
            self.faults += 1
            self.spoiled = True
            raise TimeoutError if kind == "silent" else chance.choice(_NETWORK_ERRORS)("scripted")
        if kind == "busy":
            return 503, {}, b""
        if kind == "errors":
            return chance.choice((500, 502, 504)), {}, b"oops"
        if kind == "limited":
            return 429, {"Retry-After": spell.after} if spell.after else {}, b""
        if kind == "garbled" and path != "/auth/register":
            return 200, {}, chance.choice(_BODIES)
        if kind == "stale" and path == "/auth/verify" and chance.random() < 0.7:
            return chance.choice((404, 409, 410)), {}, b'{"error": "challenge_expired"}'
        if kind == "refusing" and path == "/auth/verify" and chance.random() < 0.5:
            return 401, {}, b'{"error": "signature_mismatch"}'
        return None

    def _serve(self, path: str, body: Any) -> Triple:
        if path == "/auth/register":
            assert body == {"wallet_address": self.address}
            return 200, {}, b"{}"
        if path == "/auth/challenge":
            self._numbers += 1
            self._challenge = f"challenge-{self._numbers}"
            offer = {"challenge_id": self._challenge, "message": f"Log in, number {self._numbers}."}
            return 200, {}, json.dumps(offer).encode()
        if path == "/auth/verify":
            return self._verify(body)
        return 200, {}, json.dumps({"display_name": body["display_name"]}).encode()

    def _verify(self, body: Any) -> Triple:
        challenge, self._challenge = self._challenge, None
        if challenge is None or body["challenge_id"] != challenge:
            return 409, {}, b'{"error": "challenge_used"}'
        signature = body["signature"]
        assert len(signature) == 132 and signature.startswith("0x")
        if self._numbers % _PROVED == 1:
            signed = encode_defunct(text=f"Log in, number {self._numbers}.")
            assert Account.recover_message(signed, signature=signature).lower() == self.address
        claims = f'{{"sub": "{self.address}", "era_number": {self.era}, "jti": {self._numbers}}}'
        payload = base64.urlsafe_b64encode(claims.encode()).rstrip(b"=").decode()
        grant = {"token": f"e30.{payload}.c2ln", "expires_at": 4_000_000_000, "wallet_secret": self._secret}
        return 200, {}, json.dumps(grant).encode()


def era_of(token: str) -> int:
    """The era in a token of this server."""
    payload = token.split(".")[1]
    era: int = json.loads(base64.urlsafe_b64decode(payload + "=" * (-len(payload) % 4)))["era_number"]
    return era

"""The contract as a model: a manager's requests, how long it waits, and what its callers get.

It knows nothing of sockets, threads or the component. A plan has the fault of each request to an endpoint;
the model plays both the service and the manager, and records the expected observations.
"""

from __future__ import annotations

from collections import Counter
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass, field
from typing import Any

from tessaline.auth import AuthError, NetworkError, ProfileError, RegistrationError

REGISTER, CHALLENGE, VERIFY, RENAME = "register", "challenge", "verify", "display_name"
LOGIN = (REGISTER, CHALLENGE, VERIFY)

LIFETIME = 86400
REFRESH_RATIO = 0.8
MOST_ATTEMPTS = 3
MOST_CYCLES = 3
LONGEST_BACKOFF = 60
INVITE_REASONS = frozenset({"invite_invalid", "invite_already_redeemed", "invite_revoked", "invite_required"})
PERMANENT = frozenset({"signature_mismatch", "invalid_address"})
STALE = (404, 410, 409)

# The fields of a body by their meaning.
type Body = Mapping[str, Any] | str | None


@dataclass(frozen=True)
class Token:
    """The visible properties of a bearer token. era: None for none; "odd" for one that is not a number."""

    era: int | str | None
    readable: bool = True
    own: bool = True


@dataclass(frozen=True)
class Answer:
    """An HTTP response as the client decodes it; a body that is not a JSON object is its text, or None."""

    status: int = 200
    body: Body = None
    retry_after: str | None = None


@dataclass(frozen=True)
class Lost:
    """A failure of the network, which is retried after back-off; an error of this type."""

    kind: type[BaseException]


@dataclass(frozen=True)
class Broken:
    """A failure that is raised to the caller unchanged, with this text in it."""

    kind: type[BaseException]
    words: str


type Exchange = Answer | Lost | Broken


@dataclass(frozen=True)
class Fault:
    """The fault or response of one request.

    phase: of the exchange. effect: from the service's response to what the client gets.
    script: the development server's fault for the request; None if there is none, or HTTP is not reached.
    connect: its fault for the connection. refused: the connection is to a port where nothing listens.
    reaches: whether the whole request arrives. processed: whether the service processes it.
    stalls: whether the client has to time out.
    resent: whether it ends a kept connection before a byte of the response. Then the request is sent again
    at once, on a new connection, and this does not count as an attempt.
    """

    name: str
    phase: str
    effect: Callable[[Answer], Exchange]
    script: Mapping[str, Any] | None = None
    connect: Mapping[str, Any] | None = None
    refused: bool = False
    reaches: bool = True
    processed: bool = False
    stalls: bool = False
    resent: bool = False
    at: tuple[str, ...] = (*LOGIN, RENAME)
    schemes: tuple[str, ...] = ("http", "https")


GOOD = Fault("good", "none", lambda answer: answer, processed=True)

type Plan = Mapping[str, Sequence[Fault]]


class Refused(Exception):
    """The error that a caller must get: its type, its text (or a part of it) and its other attributes."""

    def __init__(
        self,
        kind: type[BaseException],
        text: str,
        *,
        exact: bool = True,
        context: type[BaseException] | None = None,
        **extras: Any,
    ) -> None:
        super().__init__(kind, text)
        self.kind, self.text, self.exact, self.context, self.extras = kind, text, exact, context, extras

    @property
    def permanent(self) -> bool:
        return self.kind is AuthError and self.text in PERMANENT


@dataclass
class Record:
    """The expected visible results of one flow."""

    attempts: Counter[str] = field(default_factory=Counter)
    journal: list[tuple[str, str | None]] = field(default_factory=list)
    connects: list[str] = field(default_factory=list)
    delays: list[int] = field(default_factory=list)
    logged: int = 0


class Service:
    """The server's part, as visible to a client."""

    def __init__(self, era: int) -> None:
        self.era = era
        self._registered = False
        self._used = True

    def act(self, endpoint: str, bearer: Token | None) -> Answer:
        if endpoint == REGISTER:
            self._registered = True
            return Answer(200, {"wallet_address": ""})
        if endpoint == CHALLENGE:
            if not self._registered:
                return Answer(401, {"error": "not_registered"})
            self._used = False
            return Answer(200, {"challenge_id": "", "message": ""})
        if endpoint == VERIFY:
            if self._used:
                return Answer(409, {"error": "challenge_used"})
            self._used = True
            return Answer(200, {"token": Token(self.era), "expires_at": 0, "wallet_secret": "own"})
        if bearer is None or bearer.era != self.era:
            return Answer(401, {"error": "era_over"})
        return Answer(200, {"wallet_address": "", "display_name": ""})


class Manager:
    """One manager's part. `now` is its clock, which only its waits advance."""

    def __init__(self, service: Service, now: float) -> None:
        self.service = service
        self.now = now
        self.state = "UNINITIALIZED"
        self.token: Token | None = None
        self.tokens = 0
        self.secret: str | None = None
        self.auth_time: float | None = None
        self.pending: int | None = None
        self.permanent = False
        self.failure: Refused | None = None
        self.record = Record()
        self._plan: dict[str, list[Fault]] = {}

    @property
    def expiry(self) -> float:
        assert self.auth_time is not None
        return self.auth_time + LIFETIME

    def refresh_at(self, jitter: float) -> float:
        assert self.auth_time is not None
        return self.auth_time + (LIFETIME * REFRESH_RATIO) * (1 + jitter)

    def plan(self, plan: Plan) -> Record:
        """Start a new record, of the results of `plan`."""
        self._plan = {endpoint: list(faults) for endpoint, faults in plan.items()}
        self.record = Record()
        return self.record

    # Requests

    def _exchange(self, endpoint: str) -> Exchange:
        planned = self._plan.get(endpoint)
        fault = planned.pop(0) if planned else GOOD
        self.record.attempts[endpoint] += 1
        if fault.connect is not None:
            self.record.connects.append(fault.connect["kind"])
        if fault.reaches:
            self.record.journal.append((endpoint, fault.script["kind"] if fault.script else None))
        answer = self.service.act(endpoint, self.token) if fault.processed else Answer()
        if fault.resent:
            self.record.journal.append((endpoint, None))
            answer = self.service.act(endpoint, self.token)
        return fault.effect(answer)

    def _wait(self, seconds: int) -> None:
        self.record.delays.append(seconds)
        self.now += max(0, seconds)

    def _request(self, endpoint: str) -> Answer:
        attempts, backoff = 0, 1
        while True:
            got = self._exchange(endpoint)
            if isinstance(got, Broken):
                raise Refused(got.kind, got.words, exact=False)
            hint = None
            if isinstance(got, Answer):
                self._raise_if_refused(endpoint, got)
                stale = endpoint == VERIFY and got.status in STALE
                if stale or 200 <= got.status < 300:
                    return got
                hint = self._hint(got, backoff) if got.status == 429 else None
            attempts += 1
            if attempts >= MOST_ATTEMPTS:
                context = got.kind if isinstance(got, Lost) else None
                text = f"Server unreachable after {attempts} attempts"
                raise Refused(NetworkError, text, context=context)
            if hint is not None:
                self._wait(hint)
            else:
                self._wait(backoff)
                backoff = min(backoff * 2, LONGEST_BACKOFF)

    def _hint(self, answer: Answer, default: int) -> int:
        if not answer.retry_after:
            return default
        try:
            return int(answer.retry_after)
        except ValueError:
            self.record.logged += 1
            return default

    def _raise_if_refused(self, endpoint: str, answer: Answer) -> None:
        status = answer.status
        said = answer.body.get("error") if isinstance(answer.body, Mapping) else None
        if endpoint == REGISTER and status in (400, 403):
            if isinstance(said, str) and said in INVITE_REASONS:
                raise Refused(RegistrationError, said)
            raise Refused(AuthError, "invalid_address" if status == 400 else "unauthorized")
        if status == 400 and endpoint == RENAME:
            raise Refused(ProfileError, "validation_failed", message="" if said is None else said)
        if status == 400:
            raise Refused(AuthError, "invalid_request")
        if status == 401:
            reasons = {VERIFY: "signature_mismatch", RENAME: "profile_unauthorized"}
            raise Refused(AuthError, reasons.get(endpoint, "unauthorized"))
        if status == 429 and endpoint == RENAME:
            raise Refused(ProfileError, "rate_limited", retry_after=self._hint(answer, 60))

    # Flows

    def _flow(self) -> tuple[Token, str]:
        self._request(REGISTER)
        for _ in range(MOST_CYCLES):
            offer = self._request(CHALLENGE).body
            _entry(offer, "challenge_id")
            message = _entry(offer, "message")
            if not isinstance(message, str):
                raise Refused(TypeError, "challenge message must be str", exact=False)
            granted = self._request(VERIFY)
            if granted.status in STALE:
                continue
            token = _entry(granted.body, "token")
            _entry(granted.body, "expires_at")
            secret = _entry(granted.body, "wallet_secret")
            if secret == "no base64":
                raise Refused(ValueError, "padding", exact=False)
            return token, secret
        raise Refused(NetworkError, f"stale authentication challenge after {MOST_CYCLES} attempts")

    def _matching_flow(self) -> tuple[Token, str]:
        for _ in range(2):
            token, secret = self._flow()
            if self.pending is None or (_era(token) or 0) >= self.pending:
                return token, secret
        raise Refused(AuthError, "era_mismatch")

    def _store(self, token: Token, secret: str) -> None:
        if not token.readable or not token.own:
            raise Refused(AuthError, "wallet_mismatch")
        if self.secret is not None and self.secret != secret:
            raise Refused(AuthError, "wallet_secret_changed")
        if self.pending is not None and (_era(token) or 0) < self.pending:
            raise Refused(AuthError, "era_mismatch")
        self.token, self.secret, self.auth_time = token, secret, self.now
        self.tokens += 1
        self.state, self.pending, self.permanent, self.failure = "AUTHENTICATED", None, False, None

    def _run(self, flow: Callable[[], tuple[Token, str]]) -> Refused | None:
        try:
            self._store(*flow())
        except Refused as failure:
            self.failure = failure
            return failure
        return None

    def log_in(self, announced: int | None = None) -> Refused | None:
        """`authenticate`; an era may be announced meanwhile."""
        held = self.state == "AUTHENTICATED" and self.token is not None
        self._announce(announced)
        failure = self._run(self._flow)
        if failure is not None:
            self.state = "AUTHENTICATED" if held else "UNINITIALIZED"
        return failure

    def refresh(self, announced: int | None = None) -> Refused | None:
        """The refresh that is due; an era may be announced meanwhile."""
        self._announce(announced)
        failure = self._run(self._matching_flow)
        if failure is not None:
            self.permanent = self.permanent or failure.permanent
            self.state = "UNINITIALIZED" if self.pending is None else "AUTHENTICATED"
        return failure

    def change_era(self, era: int) -> Refused | None:
        """An announcement while nothing else is running."""
        self._announce(era)
        failure = self._run(self._matching_flow)
        if failure is not None:
            self.permanent = self.permanent or failure.permanent
            self.state = "AUTHENTICATED"
        return failure

    def _announce(self, era: int | None) -> None:
        if era is not None:
            self.pending = max(era, self.pending or 0)

    def rename(self) -> Refused | bool:
        """`set_display_name`; on success whether the server's own JSON object is the result."""
        try:
            return isinstance(self._request(RENAME).body, Mapping)
        except Refused as failure:
            return failure

    # Callers

    def recorded(self) -> str | None:
        """The reason that waiters of the flow get."""
        return None if self.failure is None else self.failure.text

    def serves(self) -> str | None:
        """The result of `get_token` when nothing is running: None for the token, else the reason."""
        if self.state != "AUTHENTICATED":
            return "not_authenticated"
        if self.pending is not None:
            return self.recorded() or "era_change_pending"
        return "token_expired" if self.permanent else None

    def tells_late_caller(self) -> str | None:
        """The same for a caller that saw the old token's age before the refresh began and waited for it."""
        if self.pending is not None:
            return self.recorded() or "era_change_pending"
        return "token_expired" if self.permanent else None


def _entry(body: Body, key: str) -> Any:
    if isinstance(body, Mapping):
        if key not in body:
            raise Refused(KeyError, repr(key))
        return body[key]
    if body is None:
        raise Refused(TypeError, "'NoneType' object is not subscriptable")
    raise Refused(TypeError, "string indices must be integers, not 'str'")


def _era(token: Token) -> int | None:
    if not token.readable:
        raise Refused(AuthError, "wallet_mismatch")
    if token.era == "odd":
        raise Refused(AuthError, "era_mismatch")
    return token.era if isinstance(token.era, int) and token.era > 0 else None

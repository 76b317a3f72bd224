"""What a manager must do for its callers over time; the machine driving the real one plays the service."""

from __future__ import annotations

from dataclasses import dataclass

from .serving import Answer, Fields, serve

LIFETIME = 86400.0
REFRESH_AFTER = LIFETIME * 0.8
PERMANENT = frozenset({"signature_mismatch", "invalid_address"})

AUTH = "AuthError"


@dataclass(frozen=True)
class Failure:
    """An error, as the name of its type and its text."""

    kind: str
    text: str


CLOSED = Failure(AUTH, "manager_closed")
NOT_AUTHENTICATED = Failure(AUTH, "not_authenticated")


class Contract:
    """The expected state and results of one manager, once everything that was started has ended."""

    def __init__(self, now: float) -> None:
        self.now = now
        self.state = "UNINITIALIZED"
        self.token: int | None = None  # the number of the grant
        self.token_era = 0
        self.secret: bytes | None = None
        self.auth_time: float | None = None
        self.pending: int | None = None
        self.error: str | None = None
        self.permanent = False
        self.mode: str | None = None
        self.loop = False
        self.refresh_pending = False
        self.backing_off = False
        self.flight: str | None = None
        self.was_authenticated = False
        # Of the service:
        self.fault: Failure | None = None
        self.era = 1
        self.offered_secret = b""
        self.flows = 0
        self.grants = 0

    @property
    def expiry(self) -> float | None:
        return None if self.auth_time is None else self.auth_time + LIFETIME

    @property
    def refresh_at(self) -> float | None:
        return None if self.auth_time is None else self.auth_time + REFRESH_AFTER

    @property
    def due(self) -> bool:
        return self.refresh_at is not None and self.now >= self.refresh_at

    # Flows

    def _flow(self, matching: bool) -> Failure | None:
        """One flow and, if its token does not meet a required era, another; None if it yields a token."""
        for _ in range(2 if matching else 1):
            self.flows += 1
            if self.fault is not None:
                return self.fault
            self.grants += 1
            if self.pending is None or self.era >= self.pending:
                break
        else:
            if matching:
                return Failure(AUTH, "era_mismatch")
        if self.secret is not None and self.secret != self.offered_secret:
            return Failure(AUTH, "wallet_secret_changed")
        if self.pending is not None and self.era < self.pending:
            return Failure(AUTH, "era_mismatch")
        return None

    def _store(self) -> None:
        self.token, self.token_era = self.grants, self.era
        self.secret, self.auth_time = self.offered_secret, self.now
        self.state, self.mode, self.error = "AUTHENTICATED", None, None
        self.pending, self.permanent = None, False
        self._start_loop()

    def _start_loop(self) -> None:
        self.loop, self.refresh_pending = True, False

    def _fail(self, failure: Failure, state: str, background: bool) -> None:
        self.error, self.state, self.mode = failure.text, state, None
        if background and failure.kind == AUTH and failure.text in PERMANENT:
            self.permanent = True

    # A flow is begun first and ended later: in between, the service holds it.

    def begin_login(self) -> None:
        self.was_authenticated = self.state == "AUTHENTICATED"
        self.state, self.error, self.mode, self.flight = "AUTHENTICATING", None, None, "login"

    def begin_era(self, era: int) -> None:
        self._require(era)
        self.state, self.error, self.flight = "RE_AUTHENTICATING", None, "era"

    def begin_refresh(self) -> None:
        self.refresh_pending = True
        self.mode = "PROACTIVE" if self.pending is None else "ERA_CHANGE"
        self.state, self.error, self.flight = "RE_AUTHENTICATING", None, "refresh"

    def _require(self, era: int) -> None:
        self.pending = era if self.pending is None else max(self.pending, era)
        self.mode = "ERA_CHANGE"

    def end_flight(self) -> Failure | None:
        """The result of the caller that ran it."""
        flight, self.flight, self.backing_off = self.flight, None, False
        failure = self._flow(matching=flight != "login")
        if failure is None:
            self._store()
        elif flight == "login":
            held = self.was_authenticated and self.token is not None
            self._fail(failure, "AUTHENTICATED" if held else "UNINITIALIZED", background=False)
            if held and not self.loop:
                self._start_loop()
        elif flight == "era":
            self._fail(failure, "AUTHENTICATED", background=True)
        else:
            self.loop = False
            self._fail(
                failure, "AUTHENTICATED" if self.pending is not None else "UNINITIALIZED", background=True
            )
        return failure

    def run_what_is_due(self) -> None:
        if self.flight is None and self.loop and self.state == "AUTHENTICATED" and self.due:
            self.begin_refresh()
            self.end_flight()

    # Calls

    def announce(self, era: int) -> Failure | None:
        if era <= 0:
            return Failure("ValueError", f"era_number must be > 0, got {era}")
        if self.state == "CLOSED":
            return CLOSED
        if self.state == "UNINITIALIZED":
            return NOT_AUTHENTICATED
        if self.flight is not None:
            self._require(era)
        else:
            self.begin_era(era)
        return None

    def close(self) -> None:
        self.state, self.mode, self.pending, self.flight = "CLOSED", None, None, None
        self.token, self.auth_time, self.secret, self.loop = None, None, None, False

    def fields(self) -> Fields:
        return Fields(
            state=self.state,
            token=self.token,
            token_expiry=self.expiry,
            permanent_error=self.permanent,
            has_auth_event=True,
            reauth_mode=self.mode,
            pending_era=self.pending,
            auth_error=self.error,
            in_transient_backoff=self.backing_off,
            auth_time=self.auth_time,
            refresh_at=self.refresh_at,
            refresh_pending=self.refresh_pending,
        )

    def get_token(self) -> int | Failure:
        """The number of the grant whose token is served."""
        return self._as_result(serve(self.fields(), self.now))

    def get_token_must_wait(self) -> bool:
        if self.flight is None:
            return False
        return serve(self.fields(), self.now).way != "old token during back-off"

    def after_the_wait(self) -> int | Failure:
        """The result of a caller that waited for the flow that has just ended."""
        return self._as_result(serve(self.fields(), self.now, after_a_wait=True))

    def authenticate_after_the_wait(self) -> Failure | None:
        if self.state == "CLOSED":
            return CLOSED
        return None if self.error is None else Failure(AUTH, self.error)

    def _as_result(self, answer: Answer) -> int | Failure:
        if answer.reason is not None:
            return Failure(AUTH, answer.reason)
        if answer.error is not None:
            return Failure(AUTH, answer.error)
        return answer.token

    def credential(self) -> Failure | None:
        """Why expiry and wallet secret are refused; None if they are not."""
        if self.state == "CLOSED":
            return CLOSED
        if self.state in ("UNINITIALIZED", "AUTHENTICATING"):
            return NOT_AUTHENTICATED
        return NOT_AUTHENTICATED if self.token is None else None

    def rename_refusal(self, name: str | None, allowed: bool) -> Failure | None:
        """Why a name is refused before a token is asked for."""
        if self.state == "CLOSED":
            return CLOSED
        if self.state in ("UNINITIALIZED", "AUTHENTICATING"):
            return NOT_AUTHENTICATED
        if name and not allowed:
            return Failure(
                "ValueError",
                "Display name must be 3-32 characters: letters, numbers, spaces, hyphens, underscores",
            )
        return None

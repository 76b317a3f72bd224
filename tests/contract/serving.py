"""What `get_token` must return, in plain Python and without threads."""

from __future__ import annotations

import threading
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any


class Refused(Exception):
    """Represents a new error with this reason."""

    def __init__(self, reason: str) -> None:
        super().__init__(reason)
        self.reason = reason


class Stored(Exception):
    """Represents a stored error that is raised again."""

    def __init__(self, error: Any) -> None:
        super().__init__()
        self.error = error


class GetToken:
    """One call, over the same fields as the manager's; they may change wherever it waits or reads.

    way: how it ended. renewed: the token at the begin of the poll, if it is a new one.
    """

    def __init__(self) -> None:
        self.way = ""
        self.polls: list[bool] = []
        self.renewed: Any = None

    if TYPE_CHECKING:

        def __getattr__(self, field: str) -> Any: ...

    def _poll(self, fallback: bool) -> Any:
        self.polls.append(fallback)
        return "polled"

    def _served(self, way: str, token: Any) -> Any:
        self.way = way
        return token

    def _refuse(self, way: str, reason: str) -> Refused:
        self.way = way
        return Refused(reason)

    def _guard(self, where: str) -> None:
        self._pass_pending(where, self._pending_era_number, self._auth_error)

    def _pass_pending(self, where: str, pending: Any, error: Any) -> None:
        if pending is None:
            return
        if error is None:
            raise self._refuse(f"{where}: era pending", "era_change_pending")
        self.way = f"{where}: error of the era"
        raise Stored(error)

    def _leave_if_closed(self) -> None:
        if self._state == "CLOSED":
            raise self._refuse("closed", "manager_closed")

    def __call__(self) -> Any:
        state, token, expiry = self._state, self._token, self._token_expiry
        permanent, event, mode = self._permanent_refresh_error, self._auth_event, self._reauth_mode
        pending, error = self._pending_era_number, self._auth_error
        self._leave_if_closed()
        if state == "UNINITIALIZED":
            raise self._refuse("never logged in", "not_authenticated")
        if state in ("AUTHENTICATING", "RE_AUTHENTICATING"):
            return self._while_authenticating(token, expiry, permanent, event, mode, pending)
        if state == "AUTHENTICATED":
            return self._authenticated(token, expiry, permanent, pending, error)
        raise self._refuse("unknown state", "not_authenticated")

    def _while_authenticating(
        self, token: Any, expiry: Any, permanent: Any, event: Any, mode: Any, pending: Any
    ) -> Any:
        tolerable = mode == "PROACTIVE" and pending is None and self._in_transient_backoff
        if tolerable and token is not None and expiry is not None and not permanent:
            now = self._clock()
            if now < expiry:
                self._leave_if_closed()
                confirmed = (
                    self._state == "RE_AUTHENTICATING"
                    and self._reauth_mode == "PROACTIVE"
                    and self._pending_era_number is None
                    and self._auth_error is None
                    and self._auth_event is event
                    and self._in_transient_backoff
                    and self._token == token
                    and now < self._token_expiry
                    and not self._permanent_refresh_error
                )
                if confirmed:
                    return self._served("old token during back-off", self._token)
        if event is not None:
            event.wait()
        return self.after_the_wait()

    def after_the_wait(self) -> Any:
        """The result of a caller whose flow has ended."""
        self._leave_if_closed()
        self._guard("running")
        if self._auth_error is not None:
            self.way = "running: stored error"
            raise Stored(self._auth_error)
        if self._permanent_refresh_error:
            raise self._refuse("running: permanent", "token_expired")
        if self._token is None:
            raise self._refuse("running: no token", "token_expired")
        return self._served("running: token", self._token)

    def _authenticated(self, token: Any, expiry: Any, permanent: Any, pending: Any, error: Any) -> Any:
        self._pass_pending("authenticated", pending, error)
        now = self._clock()
        if expiry is not None and now >= expiry:
            if permanent:
                raise self._refuse("expired: permanent", "token_expired")
            fallback = self._refresh_pending.is_set()
            self._refresh_event.set()
            finished = self._state == "AUTHENTICATED" and self._pending_era_number is None
            if finished and self._token_expiry is not None and now < self._token_expiry:
                self.renewed = self._token if self._token != token else None
            return self._poll(fallback)
        auth_time, refresh_at = self._auth_time, self._refresh_at
        if auth_time is not None and refresh_at is not None and now >= refresh_at:
            self._refresh_event.set()
            if self._auth_time == auth_time:
                self._refresh_done.wait(timeout=10.0)
            self._leave_if_closed()
            self._guard("due")
            if self._permanent_refresh_error or self._token is None:
                raise self._refuse("due: nothing to serve", "token_expired")
            return self._served("due: token", self._token)
        if token is None:
            raise self._refuse("no token", "not_authenticated")
        return self._confirm_and_wait()

    def _confirm_and_wait(self) -> Any:
        held = None
        while True:
            if held is not None:
                held.wait()
            self._leave_if_closed()
            if self._state == "RE_AUTHENTICATING":
                held = self._auth_event
                if held is None:
                    raise self._refuse("meanwhile running", "token_expired")
                if not held.is_set():
                    continue
                self._guard("meanwhile running")
                if self._auth_error is not None:
                    raise Stored(self._auth_error)
                raise self._refuse("meanwhile running", "token_expired")
            self._guard("meanwhile")
            if self._permanent_refresh_error:
                raise self._refuse("permanent", "token_expired")
            if self._state == "AUTHENTICATED" and self._token is not None:
                return self._served("served", self._token)
            raise self._refuse("meanwhile gone", "not_authenticated")


# On a manager in which nothing else happens: a wait ends, and everything is as before.


@dataclass
class Fields:
    state: Any
    token: Any
    token_expiry: Any
    permanent_error: Any
    has_auth_event: bool
    reauth_mode: Any
    pending_era: Any
    auth_error: Any
    in_transient_backoff: Any
    auth_time: Any
    refresh_at: Any
    refresh_pending: bool


@dataclass(frozen=True)
class Answer:
    """A token, an error that must be that very object, or a reason; and the steps that led to it."""

    way: str
    token: Any = None
    error: Any = None
    reason: str | None = None
    nudged: bool = False


class PassingEvent(threading.Event):
    """No thread waits for it: a wait ends at once and changes nothing."""

    def wait(self, timeout: float | None = None) -> bool:
        return self.is_set()


EVENTS = ("_refresh_stop", "_refresh_event", "_close_event", "_refresh_pending", "_refresh_done")


def write(target: Any, fields: Fields) -> None:
    """Give a manager, or its model, these fields, and events without waiters."""
    target._state = fields.state
    target._token = fields.token
    target._token_expiry = fields.token_expiry
    target._permanent_refresh_error = fields.permanent_error
    target._reauth_mode = fields.reauth_mode
    target._pending_era_number = fields.pending_era
    target._auth_error = fields.auth_error
    target._in_transient_backoff = fields.in_transient_backoff
    target._auth_time = fields.auth_time
    target._refresh_at = fields.refresh_at
    for name in EVENTS:
        setattr(target, name, PassingEvent())
    if fields.refresh_pending:
        target._refresh_pending.set()
    target._auth_event = PassingEvent() if fields.has_auth_event else None


class _Still(GetToken):
    """The poll sees nothing new either."""

    def __init__(self, fields: Fields, now: Any) -> None:
        super().__init__()
        write(self, fields)
        self._clock = lambda: now

    def _poll(self, fallback: bool) -> Any:
        if fallback and self._token is not None:
            return self._served("expired: old token", self._token)
        raise self._refuse("expired", "token_expired")


def serve(fields: Fields, now: Any, *, after_a_wait: bool = False) -> Answer:
    call = _Still(fields, now)
    token = error = reason = None
    try:
        token = call.after_the_wait() if after_a_wait else call()
    except Refused as refused:
        reason = refused.reason
    except Stored as stored:
        error = stored.error
    return Answer(call.way, token, error, reason, call._refresh_event.is_set())


SERVE_WAYS = frozenset(
    {
        "closed",
        "never logged in",
        "unknown state",
        "old token during back-off",
        "running: error of the era",
        "running: era pending",
        "running: stored error",
        "running: permanent",
        "running: token",
        "running: no token",
        "authenticated: error of the era",
        "authenticated: era pending",
        "expired: permanent",
        "expired: old token",
        "expired",
        "due: nothing to serve",
        "due: token",
        "no token",
        "permanent",
        "served",
    }
)

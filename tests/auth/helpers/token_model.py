"""What `get_token` must do, written down plainly, over the same fields that the manager has."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any


class Refused(Exception):
    """Stands for a new error of this reason."""

    def __init__(self, reason: str) -> None:
        super().__init__(reason)
        self.reason = reason


class Stored(Exception):
    """Stands for a stored error that is raised again."""

    def __init__(self, error: BaseException) -> None:
        super().__init__()
        self.error = error


class TokenModel:
    """One caller's view; every field is set from outside, waits are scripted events."""

    def __init__(self) -> None:
        self.polls: list[bool] = []
        self.renewed: Any = None

    if TYPE_CHECKING:

        def __getattr__(self, field: str) -> Any: ...

    def _guard(self) -> None:
        if self._pending_era_number is not None:
            raise Stored(self._auth_error) if self._auth_error is not None else Refused("era_change_pending")

    def _poll(self, fallback: bool) -> Any:
        self.polls.append(fallback)
        return "polled"

    def get_token(self) -> Any:
        state, token, expiry = self._state, self._token, self._token_expiry
        permanent, event, mode = self._permanent_refresh_error, self._auth_event, self._reauth_mode
        pending, error = self._pending_era_number, self._auth_error
        if state == "CLOSED":
            raise Refused("manager_closed")
        if state == "UNINITIALIZED":
            raise Refused("not_authenticated")
        if state in ("AUTHENTICATING", "RE_AUTHENTICATING"):
            return self._while_authenticating(token, expiry, permanent, event, mode, pending)
        if state == "AUTHENTICATED":
            return self._authenticated(token, expiry, permanent, pending, error)
        raise Refused("not_authenticated")

    def _while_authenticating(
        self, token: Any, expiry: Any, permanent: Any, event: Any, mode: Any, pending: Any
    ) -> Any:
        tolerable = mode == "PROACTIVE" and pending is None and self._in_transient_backoff
        if tolerable and token is not None and expiry is not None and not permanent:
            now = self._clock()
            if now < expiry:
                if self._state == "CLOSED":
                    raise Refused("manager_closed")
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
                    return self._token
        if event is not None:
            event.wait()
        if self._state == "CLOSED":
            raise Refused("manager_closed")
        self._guard()
        if self._auth_error is not None:
            raise Stored(self._auth_error)
        if self._permanent_refresh_error or self._token is None:
            raise Refused("token_expired")
        return self._token

    def _authenticated(self, token: Any, expiry: Any, permanent: Any, pending: Any, error: Any) -> Any:
        if pending is not None:
            raise Stored(error) if error is not None else Refused("era_change_pending")
        now = self._clock()
        if expiry is not None and now >= expiry:
            if permanent:
                raise Refused("token_expired")
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
            if self._state == "CLOSED":
                raise Refused("manager_closed")
            self._guard()
            if self._permanent_refresh_error or self._token is None:
                raise Refused("token_expired")
            return self._token
        if token is None:
            raise Refused("not_authenticated")
        return self._confirm_and_wait()

    def _confirm_and_wait(self) -> Any:
        held = None
        while True:
            if held is not None:
                held.wait()
            if self._state == "CLOSED":
                raise Refused("manager_closed")
            if self._state == "RE_AUTHENTICATING":
                held = self._auth_event
                if held is None:
                    raise Refused("token_expired")
                if not held.is_set():
                    continue
                self._guard()
                if self._auth_error is not None:
                    raise Stored(self._auth_error)
                raise Refused("token_expired")
            self._guard()
            if self._permanent_refresh_error:
                raise Refused("token_expired")
            if self._state != "AUTHENTICATED":
                raise Refused("not_authenticated")
            if self._token is not None:
                return self._token
            raise Refused("not_authenticated")

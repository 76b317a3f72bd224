"""Auth subcomponent -- AuthManager with EIP-191 signing, JWT management, proactive refresh."""

import base64 as base64
import json as json
import random as random
import re as re
import threading as threading
import time as _time  # noqa: F401 (a name of the module)
from collections.abc import Callable, Mapping
from types import TracebackType
from typing import Any, Final, NoReturn, Protocol, Self, type_check_only

from tessaline.logging_style import log_library_surface_event as log_library_surface_event

@type_check_only
class _HttpTransport(Protocol):
    def __call__(
        self,
        method: str,
        url: str,
        /,
        *,
        headers: Mapping[str, str] | None = None,
        body: str | bytes | None = None,
    ) -> tuple[int, Mapping[str, str], bytes]: ...

_SECP256K1_ORDER: Final[int]
_UNINITIALIZED: Final[str]
_AUTHENTICATING: Final[str]
_AUTHENTICATED: Final[str]
_RE_AUTHENTICATING: Final[str]
_CLOSED: Final[str]
_BACKOFF_BASE: int
_BACKOFF_CAP: int
_AUTH_HTTP_TIMEOUT_DEFAULT: float
_AUTH_FLOW_HTTP_MAX_ATTEMPTS: int
_AUTH_FLOW_CHALLENGE_MAX_CYCLES: int
_REFRESH_RATIO: float
_TOKEN_LIFETIME: int
_DISPLAY_NAME_RE: re.Pattern[str]
_DISPLAY_NAME_ERR: str
_INVITE_REGISTRATION_REASONS: Final[frozenset[str]]
_PERMANENT_REASONS: Final[frozenset[str]]
_REAUTH_MODE_PROACTIVE: Final[str]
_REAUTH_MODE_ERA_CHANGE: Final[str]

class InvalidKeyError(Exception): ...

class AuthError(Exception):
    reason: str
    def __init__(self, reason: str) -> None: ...

class RegistrationError(Exception): ...

class ProfileError(Exception):
    reason: str
    message: Any
    retry_after: int
    def __init__(self, reason: str, **kwargs: Any) -> None: ...

class NetworkError(Exception): ...

def _default_http_transport(
    method: str, url: str, headers: Mapping[str, str] | None = None, body: str | bytes | None = None
) -> tuple[int, dict[str, str], bytes]: ...
def _auth_http_timeout_seconds() -> float: ...
def _decode_jwt_payload_unverified(token: str) -> dict[str, Any]: ...
def _assert_token_subject_matches_wallet(token: str, wallet_address: str) -> None: ...
def _validate_private_key(private_key: str) -> str: ...
def _validate_server_url(server_url: str) -> str: ...
def _normalize_invite_code(invite_code: object) -> str | None: ...
def _jwt_era_number(token: str | bytes) -> int | None: ...

_active_auth_manager: AuthManager | None
_active_auth_manager_lock: threading.Lock

def _set_active_auth_manager(manager: AuthManager | None) -> None: ...
def notify_era_change(new_era_number: int) -> None: ...

class AuthManager:
    _wallet_address: str
    _private_key: str | None
    _server_url: str
    _invite_code: str | None
    _register_wallet: bool
    _clock: Callable[[], float]
    _uses_injected_clock: bool
    _transport: _HttpTransport
    _state: str
    _lock: threading.Lock
    _token: str | None
    _token_iat: float | None
    _token_expiry: float | None
    _wallet_secret: bytes | None
    _auth_time: float | None
    _auth_event: threading.Event | None
    _auth_error: AuthError | None
    _refresh_thread: threading.Thread | None
    _refresh_stop: threading.Event
    _refresh_event: threading.Event
    _refresh_at: float | None
    _close_event: threading.Event
    _permanent_refresh_error: bool
    _refresh_pending: threading.Event
    _refresh_done: threading.Event
    _in_transient_backoff: bool
    _reauth_mode: str | None
    _pending_era_number: int | None
    _registration_acknowledged: bool

    def __init__(
        self,
        private_key: str,
        server_url: str,
        *,
        invite_code: str | None = None,
        register_wallet: bool = True,
        clock: Callable[[], float] | None = None,
        _transport: _HttpTransport | None = None,
    ) -> None: ...
    def authenticate(self) -> None: ...
    def get_token(self) -> str: ...
    def get_wallet_secret(self) -> bytes: ...
    def get_wallet_address(self) -> str: ...
    def get_token_expiry(self) -> float: ...
    def notify_era_change(self, new_era_number: int) -> None: ...
    def set_display_name(self, display_name: str | None) -> dict[str, Any]: ...
    def close(self) -> None: ...
    def __enter__(self) -> Self: ...
    def __exit__(
        self,
        exc_type: type[BaseException] | None,
        exc_value: BaseException | None,
        traceback: TracebackType | None,
    ) -> None: ...
    def __reduce__(self) -> NoReturn: ...
    def _http_request(
        self, method: str, path: str, body_dict: Any = None, headers: Mapping[str, str] | None = None
    ) -> tuple[int, Mapping[str, str], Any]: ...
    def _request_with_retry(
        self,
        method: str,
        path: str,
        body_dict: Any = None,
        headers: Mapping[str, str] | None = None,
        max_attempts: int | None = None,
        is_verify: bool = False,
    ) -> tuple[int, Mapping[str, str], Any]: ...
    def _get_time(self) -> float: ...
    def _wait_with_clock(self, seconds: float) -> None: ...
    def _do_auth_flow(self) -> tuple[str, Any, bytes]: ...
    def _do_auth_flow_matching_pending_era(self) -> tuple[str, Any, bytes]: ...
    def _store_auth_result(self, token: str, wallet_secret_bytes: bytes) -> None: ...
    def _compute_refresh_at(self, auth_time: float) -> float: ...
    def _raise_if_pending_era_locked(self) -> None: ...
    def _start_refresh(self) -> None: ...
    def _refresh_loop(self) -> None: ...
    def _do_refresh(self) -> None: ...
    def _poll_for_reauth(self, fallback_to_current_token: bool) -> str: ...
    def _background_reauth(self) -> None: ...

"""Auth subcomponent -- AuthManager with EIP-191 signing, JWT management, proactive refresh."""

import base64 as base64
import json as json
import random as random
import re as re
import threading as threading
from collections.abc import Mapping
from types import ModuleType, TracebackType
from typing import Any, Final, Literal, NoReturn, Protocol, Self, SupportsIndex, type_check_only

from typing_extensions import disjoint_base

from tessaline.logging_style import log_library_surface_event as log_library_surface_event

_time: ModuleType

# For annotations only; at run time the module has neither:
#     if TYPE_CHECKING:
#         from tessaline.auth import Clock, HttpTransport

@type_check_only
class Clock(Protocol):
    """The clock of an `AuthManager`: returns seconds, like `time.time()` or from any other starting point.

    It is called often, on the threads of callers and on background threads, so it should return at once. A
    clock for tests may stand still until the test moves it.
    """

    def __call__(self) -> float: ...

@type_check_only
class HttpTransport(Protocol):
    """The transport of an `AuthManager`: each call makes one request.

    It is called on the threads of callers and on background threads, on several at once.

    Args:
        method: HTTP method in uppercase.
        url: Absolute URL.
        headers: Headers of the request.
        body: Sent unchanged, a str as UTF-8; None for no body.

    Returns:
        Status, headers and complete body of the response, including one with an error status.

    Raises:
        ConnectionError: The server cannot be reached, or closed the connection. The manager retries.
        TimeoutError: The server did not respond in time. The manager retries.

    Any other error ends the manager's attempt and passes through unchanged.
    """

    def __call__(
        self,
        method: str,
        url: str,
        /,
        *,
        headers: Mapping[str, str] | None = None,
        body: str | bytes | None = None,
    ) -> tuple[int, Mapping[str, str], bytes]: ...

@type_check_only
class _EraListener(Protocol):
    def notify_era_change(self, new_era_number: int, /) -> object: ...

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

class InvalidKeyError(Exception):
    """Raised when private key is invalid (format, length, or secp256k1 scalar).

    Carries one English sentence, which never repeats the key.
    """

class AuthError(Exception):
    """Raised on authentication failures.

    Attributes:
        reason: lowercase snake_case text for programs to compare; also the error's text.

    If a manager raises it, a note says what to do.
    """

    reason: str
    def __init__(self, reason: str) -> None: ...

class RegistrationError(Exception):
    """Raised when the server rejects a registration request.

    Its only argument is the server's reason: "invite_required", "invite_invalid", "invite_already_redeemed"
    or "invite_revoked".
    """

class ProfileError(Exception):
    """Raised on display name/profile failures.

    Attributes:
        reason: "validation_failed" or "rate_limited"; also the error's text.
        message: the server's words, with "validation_failed".
        retry_after: seconds to wait before the next try, with "rate_limited".
    """

    reason: str
    message: Any
    retry_after: int
    def __init__(self, reason: str, **kwargs: Any) -> None: ...

class NetworkError(Exception):
    """Raised when network is unreachable after retries.

    Its message has the number of attempts, its note the last of them. It is safe to retry.
    """

def _default_http_transport(
    method: str, url: str, headers: Mapping[str, str] | None = None, body: str | bytes | None = None
) -> tuple[int, dict[str, str], bytes]:
    """Default HTTP transport using urllib. Returns (status, resp_headers, body_bytes).

    Keeps the conventions of urllib for redirects, trust and errors; connections are kept and reused by any
    thread. The GIL is released during the request, and Ctrl-C ends it.

    Args:
        method: HTTP method, sent as given.
        url: Absolute http or https URL, sent as given.
        headers: Mapping of str to str, or None.
        body: str (sent as UTF-8), bytes or None.

    Returns:
        The status of any answer, error statuses included; a dict of its headers in the server's spelling, the
        first of repeated ones; the whole body.

    Raises:
        ConnectionError: Refused, reset, unreachable, unresolvable or cut off.
        TimeoutError: Not done within `_auth_http_timeout_seconds()`.
        ssl.SSLError: TLS failed; ssl.SSLCertVerificationError for a certificate or host name.
        http.client.BadStatusLine: The answer is not HTTP.
        ValueError: Method, URL or headers cannot be sent.
    """

def _auth_http_timeout_seconds() -> float: ...
def _decode_jwt_payload_unverified(token: str) -> dict[str, Any]:
    """Decode JWT payload without signature verification.

    Raises:
        AuthError: "wallet_mismatch" for whatever cannot be read as a JSON object.
    """

def _assert_token_subject_matches_wallet(token: str, wallet_address: str) -> None: ...
def _validate_private_key(private_key: str) -> str:
    """Validate private key format and value. Returns normalized hex without 0x prefix.

    Raises:
        InvalidKeyError: Not 64 hexadecimal digits, or not strictly between 0 and the order of secp256k1 (SEC
            2). The error never repeats the key.
    """

def _validate_server_url(server_url: str) -> str:
    """Validate server URL format. Returns the URL string.

    Raises:
        ValueError: Empty, without scheme or host, or not fit to carry a bearer token.
    """

def _normalize_invite_code(invite_code: object) -> str | None:
    """Return canonical invite code for transport, or None when absent."""

def _jwt_era_number(token: str | bytes) -> int | None:
    """Return integer era_number from a JWT payload, or None if it is unavailable.

    Raises:
        AuthError: "era_mismatch" for a claim that is no number, "wallet_mismatch" for an unreadable token.
    """

_active_auth_manager: _EraListener | None
_active_auth_manager_lock: threading.Lock

def _set_active_auth_manager(manager: _EraListener | None) -> None:
    """Set the process-wide AuthManager used by era-transition callbacks.

    Args:
        manager: Kept alive until it is replaced; None for no manager. May be called from any thread.
    """

def notify_era_change(new_era_number: int) -> None:
    """Notify the active process auth manager that the server era advanced.

    Does nothing when no manager is registered. May be called from any thread and returns at once.

    Args:
        new_era_number: Lowest era, from 1, that the next token must carry.

    Raises:
        ValueError: The number is not positive.
        TypeError: It is not a number.
        AuthError: "manager_closed" or "not_authenticated".
        RuntimeError: The background thread could not be started.
    """

@disjoint_base
class AuthManager:
    """Client-side authentication manager with state machine and proactive refresh.

    Logs one wallet in at one server, renews its bearer token on a background thread and serves it to any
    number of threads. The constructor makes no request and starts no thread; call authenticate(), then
    get_token() before each request, and close() at the end (or use the manager as a context manager). If a
    renewal fails at all three attempts, the manager stops renewing until authenticate() is called again.

    Args:
        private_key: secp256k1 key, 64 hexadecimal digits, "0x" allowed. Kept in locked memory, wiped on
            close.
        server_url: Base URL; https, or http to this machine.
        invite_code: Sent with the registration; surrounding spaces and case do not matter.
        register_wallet: Whether each login begins with a registration.
        clock: Callable without arguments returning seconds as a number; time.time() when None. Called on any
            thread, also under the manager's lock: it must not call the manager.
        _transport: Callable (method, url, headers=None, body=None) returning (status, headers, body bytes).
            Runs on several threads at once; raises ConnectionError or TimeoutError for transient errors.

    Raises:
        InvalidKeyError: The key is not a valid private key.
        ValueError: The URL is not suitable for a bearer token.
        TypeError: Key or URL is not a str.

    All methods may be called from any thread, and in a forked child. The notes of an error say what to do.
    """

    _wallet_address: str
    _private_key: str | None
    _server_url: str
    _invite_code: str | None
    _register_wallet: bool
    _clock: Clock
    _uses_injected_clock: bool
    _transport: HttpTransport
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
        clock: Clock | None = None,
        _transport: HttpTransport | None = None,
    ) -> None: ...
    def authenticate(self) -> None:
        """Full register -> challenge -> sign -> verify flow.

        If several threads call it at once, one runs the flow and the others wait for its outcome. A manager
        that is logged in logs in again; if that fails, it keeps its token. Starts the background renewal.
        Blocks until the requests and their retries have finished: at most 3 attempts per request, with a
        time-out of 30 s each and a back-off of 1 s and 2 s, or the server's Retry-After. close() ends the
        retries.

        Raises:
            AuthError: The server refused the wallet or its request ("invalid_address", "unauthorized",
                "invalid_request", "signature_mismatch"), or the manager rejected the server's token or
                secret ("wallet_mismatch", "wallet_secret_changed", "era_mismatch"). Also "manager_closed"
                and "unexpected_auth_state".
            RegistrationError: The registration was refused for its invite code ("invite_required",
                "invite_invalid", "invite_already_redeemed", "invite_revoked").
            NetworkError: A request failed at all attempts, or each challenge was stale.
            ssl.SSLError: The server's certificate is not trusted, or TLS failed in another way.
            OSError, http.client.BadStatusLine: Another failure below HTTP that is not retried.
            KeyError, TypeError, ValueError: An unexpected response of the server.
            RuntimeError: Called from a callback of the login, or no thread could be started.

        Threads that waited get every failure as an AuthError; for an error of another type, `reason` is its
        message.
        """
    def get_token(self) -> str:
        """Return current valid JWT token, blocking during refresh.

        Never logs in by itself. Cheap while the token is valid: call it before each request instead of
        storing the token. Waits while a re-authentication runs: after the renewal point at most 10 s for the
        renewal, after the expiry 3 s for one to begin. close() ends every wait.

        Returns:
            The token, a JWT as str.

        Raises:
            AuthError: "not_authenticated", "token_expired", "era_change_pending", "manager_closed", or the
                error with which the last renewal failed, as the same object. For a failure of another type,
                `reason` is its message.
            RuntimeError: Called from a callback of a login, which would wait for itself.
        """
    def get_wallet_secret(self) -> bytes:
        """Return 32-byte wallet_secret (base64-decoded).

        Never waits. During a re-authentication it returns the previous value. The manager does not wipe the
        returned bytes.

        Raises:
            AuthError: "not_authenticated" or "manager_closed".
        """
    def get_wallet_address(self) -> str:
        """Return lowercase 0x-prefixed 42-char wallet address.

        Works in every state, also after close(). Never waits.
        """
    def get_token_expiry(self) -> float:
        """Return token expiry as Unix timestamp.

        On the manager's clock, in seconds, counted from the moment the token was stored. Never waits.

        Raises:
            AuthError: "not_authenticated" or "manager_closed".
        """
    def notify_era_change(self, new_era_number: int) -> None:
        """Trigger non-blocking background re-authentication for era transitions.

        After the call no thread gets a token of an older era. During a login it only raises the required
        era; a lower number changes nothing. Returns at once.

        Args:
            new_era_number: Lowest era, from 1, that the next token must carry.

        Raises:
            ValueError: The number is not positive.
            TypeError: It is not a number.
            AuthError: "manager_closed" or "not_authenticated".
            RuntimeError: The background thread could not be started; no caller keeps waiting for it.
        """
    def set_display_name(self, display_name: str | None) -> dict[str, Any]:
        """Set or reset display name via profile endpoint.

        Blocks like get_token(), and for the request and its retries: 3 attempts with a time-out of 30 s each
        and a back-off of 1 s and 2 s.

        Args:
            display_name: 3 to 32 letters, digits, spaces, "-" or "_", after removing surrounding spaces;
                None or "" resets the name.

        Returns:
            The server's response, or a dict of "wallet_address" and "display_name".

        Raises:
            ValueError: The name breaks the rule; nothing was sent.
            AttributeError: It is neither str nor None; nothing was sent.
            ProfileError: "validation_failed" (with `message`) or "rate_limited" (with `retry_after`,
                seconds).
            AuthError: As get_token(), or "profile_unauthorized".
            NetworkError: The request failed at all attempts.
        """
    def close(self) -> None:
        """Stop refresh, clear sensitive material, transition to CLOSED.

        Wakes all waiting threads, wipes the private key, drops token and wallet secret. Takes at most about
        one second, for the background thread to end. May be called again, and from any thread; called from a
        callback under the manager's lock, it takes effect when the lock is free. After it, every method
        except get_wallet_address() raises AuthError "manager_closed".
        """
    def __enter__(self) -> Self:
        """Return the manager; leaving the block closes it, also after an exception."""
    def __exit__(
        self,
        exc_type: type[BaseException] | None,
        exc_value: BaseException | None,
        traceback: TracebackType | None,
    ) -> Literal[False]:
        """Close the manager. An exception in the block propagates."""
    def __reduce__(self) -> NoReturn: ...
    def __reduce_ex__(self, protocol: SupportsIndex, /) -> NoReturn: ...
    def _http_request(
        self, method: str, path: str, body_dict: Any = None, headers: Mapping[str, str] | None = None
    ) -> tuple[int, Mapping[str, str], Any]:
        """Make HTTP request to server. Returns (status, resp_headers, resp_body_dict).

        Raises ConnectionError/TimeoutError on network failures.
        """
    def _request_with_retry(
        self,
        method: str,
        path: str,
        body_dict: Any = None,
        headers: Mapping[str, str] | None = None,
        max_attempts: int | None = None,
        is_verify: bool = False,
    ) -> tuple[int, Mapping[str, str], Any]:
        """HTTP request with exponential backoff retry for temporary errors.

        Returns (status, resp_headers, resp_body). Raises AuthError on permanent errors and NetworkError on
        exhausted retries.
        """
    def _get_time(self) -> float:
        """Get current time using injected clock."""
    def _wait_with_clock(self, seconds: float) -> None:
        """Wait using the injected clock. Returns early if close is signaled or clock is stuck."""
    def _do_auth_flow(self) -> tuple[str, Any, bytes]:
        """Execute register -> challenge -> sign -> verify."""
    def _do_auth_flow_matching_pending_era(self) -> tuple[str, Any, bytes]:
        """Run auth flow, retrying once if an in-flight era change needs a newer token."""
    def _store_auth_result(self, token: str, wallet_secret_bytes: bytes) -> None:
        """Store auth result and signal waiting threads. Must be called under self._lock."""
    def _compute_refresh_at(self, auth_time: float) -> float:
        """Return jittered proactive refresh timestamp."""
    def _raise_if_pending_era_locked(self) -> None:
        """Raise instead of serving a token while an era-change target is unresolved."""
    def _start_refresh(self) -> None:
        """Start the proactive refresh background thread."""
    def _refresh_loop(self) -> None:
        """Background thread waiting for token refresh threshold."""
    def _do_refresh(self) -> None:
        """Perform a proactive token refresh."""
    def _poll_for_reauth(self, fallback_to_current_token: bool) -> str:
        """Poll up to 3s for the refresh thread to enter RE_AUTHENTICATING, then wait.

        If fallback_to_current_token is True, returns the current token on poll timeout (used when
        refresh_pending is set). Otherwise raises token_expired.
        """
    def _background_reauth(self) -> None:
        """Background re-authentication thread (era-change triggered)."""

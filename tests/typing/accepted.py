"""What a user's program may write: type checkers accept all of it, with these types. Never run."""

# pyright: reportPrivateUsage=false

from __future__ import annotations

import contextlib
import time
from collections.abc import Callable, Mapping
from typing import TYPE_CHECKING, Any, assert_type

from tessaline import auth
from tessaline.auth import AuthError, AuthManager, NetworkError, ProfileError, RegistrationError

if TYPE_CHECKING:
    from tessaline.auth import Clock, HttpTransport


class SteppedClock:
    def __init__(self) -> None:
        self.now = 0.0

    def __call__(self) -> float:
        return self.now


class OwnTransport:
    """A transport with state, which names no more than it needs of the types."""

    def __call__(
        self, method: str, url: str, headers: Mapping[str, str] | None = None, body: str | bytes | None = None
    ) -> tuple[int, dict[str, str], bytes]:
        return 200, {}, b""


def lenient(method: str, url: str, **named: Any) -> tuple[int, Mapping[str, str], bytes]:
    return 200, {}, b""


def keyword_only(
    method: str,
    url: str,
    *,
    headers: Mapping[str, str] | None = None,
    body: str | bytes | None = None,
    patience: float = 1.0,
) -> tuple[int, dict[str, str], bytes]:
    return 200, {}, b""


def wrapped(transport: HttpTransport) -> HttpTransport:
    """A transport that asks another one."""

    def ask(
        method: str, url: str, headers: Mapping[str, str] | None = None, body: str | bytes | None = None
    ) -> tuple[int, Mapping[str, str], bytes]:
        answer = transport(method, url, headers=headers, body=body)
        assert_type(answer, tuple[int, Mapping[str, str], bytes])
        return answer

    return ask


def whole_seconds() -> int:
    return 1


CLOCKS: list[Clock] = [time.time, time.monotonic, lambda: 1.0, SteppedClock(), SteppedClock().__call__]
WHOLE_SECONDS: Clock = whole_seconds
TRANSPORTS: list[HttpTransport] = [OwnTransport(), lenient, keyword_only, auth._default_http_transport]


def constructed(key: str) -> None:
    AuthManager(key, "https://service.example")
    AuthManager(private_key=key, server_url="https://service.example")
    manager = AuthManager(
        key,
        "https://service.example",
        invite_code="welcome",
        register_wallet=False,
        clock=SteppedClock(),
        _transport=wrapped(OwnTransport()),
    )
    assert_type(manager, AuthManager)
    AuthManager(key, "https://service.example", invite_code=None, clock=None, _transport=None)


def used(manager: AuthManager, name: str | None) -> None:
    # The types of calls without a result are told by what takes them.
    done: list[Callable[[], None]] = [manager.authenticate, manager.close]
    announce: list[Callable[[int], None]] = [manager.notify_era_change, auth.notify_era_change]
    assert_type(manager.get_token(), str)
    assert_type(manager.get_wallet_secret(), bytes)
    assert_type(manager.get_wallet_address(), str)
    assert_type(manager.get_token_expiry(), float)
    assert_type(manager.set_display_name(name), dict[str, Any])
    assert_type(manager.set_display_name(display_name=None), dict[str, Any])
    assert done and announce


def closed_at_the_end(key: str) -> str:
    with AuthManager(key, "https://service.example") as manager:
        assert_type(manager, AuthManager)
        # Reachable only if leaving the block cannot swallow an error: else this function would lack a return.
        return manager.get_token()


def stacked(key: str) -> None:
    with contextlib.ExitStack() as stack:
        assert_type(stack.enter_context(AuthManager(key, "https://service.example")), AuthManager)
    with contextlib.closing(AuthManager(key, "https://service.example")) as manager:
        assert_type(manager, AuthManager)


class NamedManager(AuthManager):
    """A subclass keeps its own type as a context manager."""

    def __init__(self, key: str, name: str) -> None:
        super().__init__(key, "https://service.example")
        self.name = name

    def get_token(self) -> str:
        return super().get_token()


def subclassed(key: str) -> None:
    with NamedManager(key, "maker") as manager:
        assert_type(manager, NamedManager)
        assert_type(manager.name, str)


def handled(manager: AuthManager) -> str | None:
    try:
        manager.authenticate()
        manager.set_display_name("Ada")
    except AuthError as error:
        return assert_type(error.reason, str)
    except ProfileError as error:
        assert_type(error.reason, str)
        assert_type(error.retry_after, int)
    except (NetworkError, RegistrationError) as error:
        return str(error)
    return None


def raised() -> list[Exception]:
    return [
        AuthError("token_expired"),
        AuthError(reason="token_expired"),
        ProfileError("rate_limited", retry_after=60),
        ProfileError(reason="validation_failed", message="too short"),
    ]


class Listener:
    """Era announcements may go to whatever passes them on."""

    def notify_era_change(self, new_era_number: int) -> None:
        auth.notify_era_change(new_era_number)


def registered(manager: AuthManager) -> None:
    auth._set_active_auth_manager(manager)
    auth._set_active_auth_manager(Listener())
    auth._set_active_auth_manager(None)

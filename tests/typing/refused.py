"""What type checkers must refuse: they complain of a comment whose line they accept. Never run."""

# pyright: reportUnnecessaryTypeIgnoreComment=true

from __future__ import annotations

from collections.abc import Mapping
from typing import TYPE_CHECKING

from tessaline.auth import AuthError, AuthManager, NetworkError, ProfileError, RegistrationError

if TYPE_CHECKING:
    from tessaline.auth import Clock, HttpTransport

URL = "https://service.example"


def text_clock() -> str:
    return "now"


def told_clock(zone: str) -> float:
    return 0.0


def textual(
    method: str, url: str, headers: Mapping[str, str] | None = None, body: str | bytes | None = None
) -> tuple[int, dict[str, str], str]:
    return 200, {}, ""


def headless(method: str, url: str, body: str | bytes | None = None) -> tuple[int, dict[str, str], bytes]:
    return 200, {}, b""


def swapped(
    headers: Mapping[str, str] | None, body: str | bytes | None, method: str, url: str
) -> tuple[int, dict[str, str], bytes]:
    return 200, {}, b""


async def awaited(
    method: str, url: str, headers: Mapping[str, str] | None = None, body: str | bytes | None = None
) -> tuple[int, dict[str, str], bytes]:
    return 200, {}, b""


CLOCK_OF_TEXT: Clock = text_clock  # type: ignore[assignment]
CLOCK_WITH_ARGUMENT: Clock = told_clock  # type: ignore[assignment]
TEXT_BODY: HttpTransport = textual  # type: ignore[assignment]
NO_HEADERS: HttpTransport = headless  # type: ignore[assignment]
OTHER_ORDER: HttpTransport = swapped  # type: ignore[assignment]
COROUTINE: HttpTransport = awaited  # type: ignore[assignment]


def constructed(key: str) -> None:
    AuthManager(key)  # type: ignore[call-arg]
    AuthManager(key, URL, "welcome")  # type: ignore[call-arg]
    AuthManager(key, URL, code="welcome")  # type: ignore[call-arg]
    AuthManager(key, None)  # type: ignore[arg-type]
    AuthManager(key.encode(), URL)  # type: ignore[arg-type]
    AuthManager(key, URL, clock=1.0)  # type: ignore[arg-type]
    AuthManager(key, URL, _transport=textual)  # type: ignore[arg-type]


def used(manager: AuthManager) -> None:
    manager.get_token(5.0)  # type: ignore[call-arg]
    manager.notify_era_change("7")  # type: ignore[arg-type]
    manager.set_display_name()  # type: ignore[call-arg]
    manager.set_display_name(b"Ada")  # type: ignore[arg-type]
    manager.refresh()  # type: ignore[attr-defined]
    manager.get_token() + b""  # type: ignore[operator]
    manager.get_token().decode()  # type: ignore[attr-defined]


def handled(manager: AuthManager) -> None:
    try:
        manager.authenticate()
    except RegistrationError as error:
        # Its reason is its text.
        print(error.reason)  # type: ignore[attr-defined]
    except NetworkError as error:
        print(error.reason)  # type: ignore[attr-defined]
    except AuthError as error:
        print(error.retry_after)  # type: ignore[attr-defined]


def raised() -> list[Exception]:
    return [
        AuthError(),  # type: ignore[call-arg]
        AuthError("a", "b"),  # type: ignore[call-arg]
        AuthError(reason=1),  # type: ignore[arg-type]
        ProfileError(retry_after=60),  # type: ignore[call-arg]
    ]

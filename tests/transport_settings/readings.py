"""What a manager does with a transport, and the result of a request through one."""

from __future__ import annotations

import ssl
from typing import Any

from tessaline.auth import AuthManager, NetworkError

KEY = "1".zfill(64)

ACCEPTED = "accepted"
REFUSED = "refused"


class Waiting(AuthManager):
    """Records the seconds that it should wait, and does not wait."""

    waits: list[Any]

    def _wait_with_clock(self, seconds: Any) -> None:
        self.waits.append(seconds)


def waited(transport: Any, url: str = "http://localhost") -> list[Any]:
    """The delays of a login between its tries of the first request, all of which fail."""
    with Waiting(KEY, url, _transport=transport) as manager:
        manager.waits = []
        try:
            manager.authenticate()
        except NetworkError:
            return manager.waits
    raise AssertionError("the login has not failed")


def outcome(transport: Any, url: str) -> str:
    """Whether the certificate at that URL is accepted now; other failures are raised."""
    try:
        assert transport("GET", url)[0] == 200
    except ssl.SSLCertVerificationError:
        return REFUSED
    return ACCEPTED


def failure(transport: Any, *args: Any, **options: Any) -> BaseException:
    """The error of a request."""
    try:
        status = transport(*args, **options)[0]
    except BaseException as error:
        return error
    raise AssertionError(f"the request has not failed but was answered with {status}")


def notes(error: BaseException) -> list[str]:
    return list(getattr(error, "__notes__", []))

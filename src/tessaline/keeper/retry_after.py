"""The transport with which a keeper wraps its manager's, so that no manager sleeps for long."""

from __future__ import annotations

from collections.abc import Callable, Mapping
from typing import TYPE_CHECKING, Final

from .schedule import LONGEST_BACK_OFF

if TYPE_CHECKING:
    from tessaline.auth import HttpTransport

SHORT_WAIT: Final = 5
"""Seconds that a manager may wait by itself during a login."""

_LOGIN = ("/auth/register", "/auth/challenge", "/auth/verify")


class RetryAfterTransport:
    """Hides a long `Retry-After` from the manager, and sends nothing until that time.

    During a login a manager sleeps as long as the server asks, up to a day, and would block one of the
    keeper's threads. Here such a login ends at once, and the keeper schedules the next attempt for
    `not_before`, at most five minutes later.

    Args:
        transport: The manager's own.
        clock: The manager's.
    """

    def __init__(self, transport: HttpTransport, clock: Callable[[], float]) -> None:
        self.transport = transport
        self.not_before: float | None = None
        self._clock = clock
        self._answer: tuple[int, Mapping[str, str], bytes] | None = None

    def __call__(
        self,
        method: str,
        url: str,
        headers: Mapping[str, str] | None = None,
        body: str | bytes | None = None,
    ) -> tuple[int, Mapping[str, str], bytes]:
        if not url.endswith(_LOGIN):
            return self.transport(method, url, headers=headers, body=body)
        if self._answer is not None and self._is_early():
            return self._answer
        self.not_before = self._answer = None
        try:
            status, fields, content = self.transport(method, url, headers=headers, body=body)
        finally:
            # Error reports with the variables of the frames must not show a signature.
            del headers, body
        asked = _seconds_asked(fields) if status == 429 else 0
        if asked <= SHORT_WAIT:
            return status, fields, content
        self.not_before = self._clock() + min(asked, LONGEST_BACK_OFF)
        self._answer = status, {**fields, "Retry-After": "0"}, content
        return self._answer

    def _is_early(self) -> bool:
        now, end = self._clock(), self.not_before
        # A clock that was set back must not lengthen the wait.
        return end is not None and end - LONGEST_BACK_OFF <= now < end


def _seconds_asked(fields: Mapping[str, str]) -> float:
    """How long the manager would wait; 0 if it finds no number."""
    try:
        return int(fields.get("Retry-After", fields.get("retry-after", "")))
    except (TypeError, ValueError):
        return 0

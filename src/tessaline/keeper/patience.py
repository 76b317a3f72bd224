"""The transport that a keeper puts around its manager's, so that no manager sleeps for long."""

from __future__ import annotations

from collections.abc import Callable, Mapping
from typing import TYPE_CHECKING, Final

from .schedule import LONGEST_BACK_OFF

if TYPE_CHECKING:
    from tessaline.auth import HttpTransport

SHORT_WAIT: Final = 5
"""Seconds that a manager may wait by itself, in the midst of a login."""

_LOGIN = ("/auth/register", "/auth/challenge", "/auth/verify")


class Patience:
    """Tells the manager nothing of a long `Retry-After`, and sends nothing until that time has passed.

    A manager sleeps for as long as the server asks, up to a day, in the midst of a login, and the keeper
    could log no other wallet in meanwhile. Here such a login ends at once and the keeper plans the next
    attempt for `not_before`, five minutes ahead at most.

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
            # Who reports errors with the variables of their frames is not to report a signature.
            del headers, body
        asked = _seconds_asked(fields) if status == 429 else 0
        if asked <= SHORT_WAIT:
            return status, fields, content
        self.not_before = self._clock() + min(asked, LONGEST_BACK_OFF)
        self._answer = status, {**fields, "Retry-After": "0"}, content
        return self._answer

    def _is_early(self) -> bool:
        now, end = self._clock(), self.not_before
        # A clock that was set back must not make it a longer wait than it was.
        return end is not None and end - LONGEST_BACK_OFF <= now < end


def _seconds_asked(fields: Mapping[str, str]) -> float:
    """What the manager would wait for; 0 where it finds no number."""
    try:
        return int(fields.get("Retry-After", fields.get("retry-after", "")))
    except (TypeError, ValueError):
        return 0

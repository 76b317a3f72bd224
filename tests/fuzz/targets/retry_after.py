"""`Retry-After` in both its uses: a line for the header's name, then its value."""

from __future__ import annotations

import json
from typing import Any

from tessaline import auth

from ..hosted import json_answer, manager_over, outcome, text_of

PROFILE = "/api/profile/display_name"
logged: list[Any] = []


def expected(name: str, value: str, fallback: int) -> tuple[int, bool]:
    """The seconds, and whether a complaint is logged."""
    if name not in ("Retry-After", "retry-after") or not value:
        return fallback, False
    try:
        return int(value), False
    except ValueError:
        return fallback, True


class Waits:
    def __init__(self) -> None:
        self.seconds: list[Any] = []

    def __call__(self, seconds: Any) -> None:
        self.seconds.append(seconds)


def one_input(data: bytes) -> None:
    first, _, rest = data.partition(b"\n")
    name, value = text_of(first), text_of(rest)
    usual = auth.log_library_surface_event
    auth.log_library_surface_event = lambda *args, **more: logged.append((args, more))
    try:
        check_profile(name, value)
        check_request(name, value)
    finally:
        auth.log_library_surface_event = usual


def check_profile(name: str, value: str) -> None:
    logged.clear()
    manager = manager_over(lambda *_, **__: json_answer(429, {}, {name: value}))
    error = outcome(manager._request_with_retry, "POST", PROFILE, {}, None)
    assert type(error) is auth.ProfileError, repr(error)
    seconds, complaint = expected(name, value, 60)
    assert (error.reason, error.retry_after) == ("rate_limited", seconds)
    assert len(logged) == complaint
    assert len(value) < 24 or repr(value)[1:-1] not in json.dumps([repr(entry) for entry in logged])


def check_request(name: str, value: str) -> None:
    logged.clear()
    answers = [json_answer(429, {}, {name: value}), json_answer(200, {"ok": 1})]
    manager = manager_over(lambda *_, **__: answers.pop(0))
    waits = manager._wait_with_clock = Waits()
    status, _, body = manager._request_with_retry("POST", "/auth/challenge", {}, None)
    assert (status, body) == (200, {"ok": 1})
    seconds, complaint = expected(name, value, 1)
    assert waits.seconds == [seconds]
    assert len(logged) == complaint

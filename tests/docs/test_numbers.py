"""The numbers on the pages are those of the code."""

from __future__ import annotations

import re

import pytest

from tessaline import auth

from .pages import DOCS

pytestmark = pytest.mark.process

CONSTANTS = (DOCS.parent / "src/tessaline/auth/constants.hpp").read_text()


def told(page: str) -> str:
    """A page without its line ends."""
    return " ".join((DOCS / page).read_text().split())


def constant(name: str) -> float:
    (value,) = re.findall(rf"\b{name} = ([\d.]+);", CONSTANTS)
    return float(value)


def hours_and_minutes(seconds: float) -> str:
    hours, minutes = divmod(round(seconds / 60), 60)
    return f"{hours} h {minutes} min"


def test_the_life_of_a_token() -> None:
    lifetime, ratio, jitter = auth._TOKEN_LIFETIME, auth._REFRESH_RATIO, constant("kRefreshJitter")
    early, late = (lifetime * ratio * (1 + sign * jitter) for sign in (-1, 1))
    assert f"{lifetime} s" in told("time.md")
    assert f"(1 ± {jitter}), drawn for each token: {early:.0f} to {late:.0f} s" in told("time.md")
    page = told("token-life.md")
    assert f"A token lives {lifetime // 3600} hours" in page
    assert f"{ratio * 100:.0f} % of the lifetime, with a jitter of {jitter * 100:.0f} %" in page
    assert f"{hours_and_minutes(early)} to {hours_and_minutes(late)} after the login" in page
    assert f"good for at least {lifetime // 3600} hours" in told("protocol.md")


def test_attempts_and_pauses() -> None:
    seconds = auth._AUTH_HTTP_TIMEOUT_DEFAULT
    assert f"Each request may take {seconds:.0f} seconds in all" in told("networking.md")
    assert f"| one request | {seconds:.0f} s, on the monotonic clock |" in told("time.md")
    assert (auth._AUTH_FLOW_HTTP_MAX_ATTEMPTS, auth._AUTH_FLOW_CHALLENGE_MAX_CYCLES) == (3, 3)
    assert "Each request is tried three times" in told("networking.md")
    assert "a stale challenge: a new one, three times at most" in told("networking.md")
    first = auth._BACKOFF_BASE
    assert f"{first}, {2 * first}, {4 * first} … s, at most {auth._BACKOFF_CAP}" in told("time.md")
    assert f"doubling up to {auth._BACKOFF_CAP} seconds" in told("networking.md")

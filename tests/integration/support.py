"""Common to tests over real sockets: a manager with its environment, and counts."""

from __future__ import annotations

import base64
import contextlib
import json
import os
import secrets
import traceback
from collections import Counter
from collections.abc import Callable
from typing import Any
from urllib.parse import urlsplit

import canary
from canary.telling import chain
from devserver.testing import DevServer
from tessaline import auth
from tessaline.testing import FakeClock

PAST_REFRESH = 80_000.0
ENDPOINTS = {
    "/auth/register": "register",
    "/auth/challenge": "challenge",
    "/auth/verify": "verify",
    "/api/profile/display_name": "display_name",
}


def descriptors() -> int:
    """The number of open descriptors of the process."""
    return len(os.listdir("/proc/self/fd"))


class Spy:
    """The default transport, which counts requests and records all secrets in them."""

    def __init__(self, headers: dict[str, str] | None = None) -> None:
        self.headers = headers or {}
        self.attempts: Counter[str] = Counter()
        self.secrets: set[str] = set()

    def __call__(self, method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        self.attempts[ENDPOINTS[urlsplit(url).path]] += 1
        self._remember(body)
        authorization = (headers or {}).get("Authorization")
        if authorization is not None:
            self._keep("token", authorization.removeprefix("Bearer "))
        answer = auth._default_http_transport(method, url, headers={**headers, **self.headers}, body=body)
        self._remember(answer[2])
        return answer

    def _remember(self, text: Any) -> None:
        try:
            value = json.loads(text)
        except (TypeError, ValueError):
            return
        for name in ("signature", "token", "wallet_secret"):
            if isinstance(value, dict) and isinstance(value.get(name), str):
                self._keep(name, value[name])

    def _keep(self, kind: str, secret: str) -> None:
        self.secrets.add(secret)
        canary.plant(kind, secret)
        if kind == "wallet_secret":
            with contextlib.suppress(ValueError):
                canary.plant(kind, base64.b64decode(secret))


class Harness:
    """A manager over real HTTP whose back-off delays are only recorded, in `delays`."""

    def __init__(self, url: str, *, close_connections: bool = False, **options: Any) -> None:
        self.key = secrets.token_hex(32)
        self.spy = Spy({"Connection": "close"} if close_connections else None)
        self.clock = options.pop("clock", None) or FakeClock()
        self.manager = auth.AuthManager(self.key, url, clock=self.clock, _transport=self.spy, **options)
        canary.watch(self.manager)
        self.delays: list[Any] = []
        self.manager._wait_with_clock = self.delays.append  # type: ignore[assignment]

    def forget(self) -> None:
        """Forget the requests and the delays so far."""
        self.spy.attempts.clear()
        self.delays.clear()

    def secrets(self) -> set[str]:
        """Every text that must not appear, in each possible notation."""
        held = self.manager._wallet_secret
        texts = {self.key, self.key.upper(), *self.spy.secrets}
        for text in list(self.spy.secrets):
            if text.startswith("0x"):
                texts.add(text[2:])
        if held is not None:
            texts |= {held.hex(), repr(held), base64.b64encode(held).decode()}
        return {text for text in texts if len(text) >= 16}

    def discreet(self, error: BaseException) -> BaseException:
        """The error itself, after a search of all its texts."""
        for link in chain(error):
            said = "".join(traceback.format_exception(link)) + repr(link) + str(link) + repr(vars(link))
            self.assert_nothing_secret_in(said)
        return error

    def assert_nothing_secret_in(self, text: str) -> None:
        # Not a plain assertion, which would print the secret.
        if any(secret in text for secret in self.secrets()):
            raise AssertionError("something secret shows")

    def failure(self, call: Callable[..., Any], *args: Any) -> BaseException:
        """The error with which the call ends."""
        try:
            value = call(*args)
        except BaseException as error:
            return self.discreet(error)
        raise AssertionError(f"the call has not failed but returned {type(value)}")

    def trigger_refresh(self) -> None:
        """Advance past the refresh point; the refresh thread sees it within 0.05 s."""
        self.clock.now += PAST_REFRESH


def wire(server: DevServer) -> dict[str, int]:
    """The number of requests to each endpoint that had any."""
    return {name: count for name, count in server.state()["counts"].items() if count}


def reason_of(error: BaseException) -> str:
    assert type(error) is auth.AuthError
    assert str(error) == error.reason
    return error.reason

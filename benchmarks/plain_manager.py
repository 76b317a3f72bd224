"""The same contract in plain Python, as a good programmer would write it in an afternoon.

It logs in, serves, renews in the background, follows eras and closes; its transport is Python's urllib.
"""

from __future__ import annotations

import base64
import json
import random
import threading
import time
import urllib.error
import urllib.request
from collections.abc import Callable
from typing import Any

from eth_account import Account
from eth_account.messages import encode_defunct

TOKEN_LIFETIME = 86400
REFRESH_RATIO = 0.8
ATTEMPTS = 3


class AuthError(Exception):
    def __init__(self, reason: str) -> None:
        super().__init__(reason)
        self.reason = reason


def urllib_transport(method: str, url: str, headers: dict[str, str], body: str | None) -> Any:
    data = None if body is None else body.encode()
    request = urllib.request.Request(url, data=data, headers=headers, method=method)
    try:
        with urllib.request.urlopen(request, timeout=30.0) as response:
            return response.status, dict(response.headers), response.read()
    except urllib.error.HTTPError as error:
        return error.code, dict(error.headers), error.read()


def claims_of(token: str) -> dict[str, Any]:
    payload = token.split(".")[1]
    return json.loads(base64.urlsafe_b64decode(payload + "=" * (-len(payload) % 4)))


class PlainAuthManager:
    """One wallet at one server; see the component's `AuthManager`."""

    def __init__(
        self,
        private_key: str,
        server_url: str,
        *,
        clock: Callable[[], float] | None = None,
        transport: Callable[..., Any] | None = None,
    ) -> None:
        self._account = Account.from_key(bytes.fromhex(private_key))
        self._address = self._account.address.lower()
        self._url = server_url.rstrip("/")
        self._clock = clock or time.time
        self._transport = transport or urllib_transport
        self._lock = threading.Lock()
        self._state = "UNINITIALIZED"
        self._token: str | None = None
        self._secret: bytes | None = None
        self._expiry: float | None = None
        self._refresh_at: float | None = None
        self._pending_era: int | None = None
        self._error: Exception | None = None
        self._done: threading.Event | None = None
        self._closing = threading.Event()
        self._wake = threading.Event()

    def get_token(self) -> str:
        with self._lock:
            state = self._state
            done = self._done
            expiry = self._expiry
            refresh_at = self._refresh_at
            pending_era = self._pending_era
        if state == "CLOSED":
            raise AuthError("manager_closed")
        if state == "UNINITIALIZED":
            raise AuthError("not_authenticated")
        if state == "AUTHENTICATED":
            if pending_era is not None:
                raise self._error or AuthError("era_change_pending")
            now = self._clock()
            if expiry is not None and now >= expiry:
                raise AuthError("token_expired")
            if refresh_at is not None and now >= refresh_at:
                self._wake.set()
        elif done is not None:
            done.wait()
        with self._lock:
            if self._state == "CLOSED":
                raise AuthError("manager_closed")
            if self._error is not None:
                raise self._error
            if self._token is None:
                raise AuthError("not_authenticated")
            return self._token

    def authenticate(self) -> None:
        with self._lock:
            if self._state == "CLOSED":
                raise AuthError("manager_closed")
            waiting_for = self._done if self._state.endswith("AUTHENTICATING") else None
            if waiting_for is None:
                self._begin("AUTHENTICATING")
        if waiting_for is not None:
            waiting_for.wait()
            if self._error is not None:
                raise self._error
            return
        self._run_flow()
        if self._error is not None:
            raise self._error
        threading.Thread(target=self._refresh_loop, daemon=True).start()

    def notify_era_change(self, era: int) -> None:
        with self._lock:
            self._pending_era = max(era, self._pending_era or 0)
            if self._state != "AUTHENTICATED":
                return
            self._begin("RE_AUTHENTICATING")
        threading.Thread(target=self._run_flow, daemon=True).start()

    def close(self) -> None:
        with self._lock:
            self._state = "CLOSED"
            self._token = self._secret = None
            self._account = None
        self._closing.set()
        self._wake.set()
        if self._done is not None:
            self._done.set()

    def _begin(self, state: str) -> None:
        self._state = state
        self._done = threading.Event()
        self._error = None

    def _run_flow(self) -> None:
        try:
            token, secret = self._flow()
            if claims_of(token)["sub"].lower() != self._address:
                raise AuthError("wallet_mismatch")
            if self._pending_era is not None and claims_of(token).get("era_number", 0) < self._pending_era:
                raise AuthError("era_mismatch")
        except Exception as error:
            with self._lock:
                self._error = error
                if self._state != "CLOSED":
                    self._state = "UNINITIALIZED" if self._token is None else "AUTHENTICATED"
        else:
            with self._lock:
                if self._state != "CLOSED":
                    now = self._clock()
                    self._token, self._secret = token, secret
                    self._expiry = now + TOKEN_LIFETIME
                    self._refresh_at = now + TOKEN_LIFETIME * REFRESH_RATIO * (
                        1 + random.uniform(-0.05, 0.05)
                    )
                    self._pending_era = None
                    self._state = "AUTHENTICATED"
        assert self._done is not None
        self._done.set()

    def _flow(self) -> tuple[str, bytes]:
        self._post("/auth/register", {"wallet_address": self._address})
        challenge = self._post("/auth/challenge", {"wallet_address": self._address})
        signed = self._account.sign_message(encode_defunct(text=challenge["message"]))
        signature = "0x" + signed.signature.hex().removeprefix("0x")
        answer = self._post(
            "/auth/verify", {"challenge_id": challenge["challenge_id"], "signature": signature}
        )
        return answer["token"], base64.b64decode(answer["wallet_secret"])

    def _post(self, path: str, body: dict[str, Any]) -> Any:
        headers = {"Content-Type": "application/json"}
        for attempt in range(ATTEMPTS):
            try:
                status, _, answer = self._transport(
                    "POST", self._url + path, headers=headers, body=json.dumps(body)
                )
            except (ConnectionError, TimeoutError, urllib.error.URLError):
                status = 503
            if status in (400, 401, 403):
                raise AuthError("unauthorized")
            if 200 <= status < 300:
                return json.loads(answer) if answer else None
            if self._closing.wait(2**attempt):
                raise AuthError("manager_closed")
        raise ConnectionError(f"Server unreachable after {ATTEMPTS} attempts")

    def _refresh_loop(self) -> None:
        while not self._closing.is_set():
            with self._lock:
                due = self._refresh_at is not None and self._clock() >= self._refresh_at
                if due and self._state == "AUTHENTICATED":
                    self._begin("RE_AUTHENTICATING")
            if due:
                self._run_flow()
            self._wake.wait(1.0)
            self._wake.clear()

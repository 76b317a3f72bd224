"""One login at a time, over the default transport and in memory."""

from __future__ import annotations

import json
import os
import ssl
import tempfile
import time
import urllib.request
from collections.abc import Callable
from functools import partial
from pathlib import Path
from typing import Any

import floors
import jwt
import trustme
from eth_account import Account

from tessaline import auth

from .places import CHALLENGE, KEY, REGISTER, VERIFY, running_server
from .ratios import Figure, Group, Ratio, in_turns, medians_of

# What a login sends, in form and length; the benchmarks' server ignores it.
_WALLET = json.dumps({"wallet_address": "0x" + "ab" * 20})
LOGIN_BODIES = (
    _WALLET,
    _WALLET,
    json.dumps({"challenge_id": "0x" + "ab" * 20, "signature": "0x" + "00" * 65}),
)


def seconds(operation: Callable[[], Any]) -> float:
    begin = time.perf_counter()
    operation()
    return time.perf_counter() - begin


def swallowed(operation: Callable[[], Any]) -> None:
    """Calls it; an error of the server is accepted."""
    try:
        operation()
    except Exception as error:
        if type(error).__name__ != "AuthError":
            raise


def new_manager(base: str, **options: Any) -> Any:
    return auth.AuthManager(KEY, base, **options)


def one_flow(base: str) -> float:
    with new_manager(base) as manager:
        return seconds(lambda: swallowed(manager.authenticate))


def login_urls(base: str) -> tuple[str, ...]:
    return tuple(base + path for path in (REGISTER, CHALLENGE, VERIFY))


def through_urllib(base: str, context: ssl.SSLContext) -> None:
    for url, body in zip(login_urls(base), LOGIN_BODIES, strict=True):
        headers = {"Content-Type": "application/json"}
        request = urllib.request.Request(url, body.encode(), headers, method="POST")
        with urllib.request.urlopen(request, timeout=30, context=context) as response:
            response.read()


def login_over_https(rounds: int) -> Group:
    """Register, challenge, verify over a new TLS connection, compared with the same three calls of urllib."""
    authority = trustme.CA()
    certificate = authority.issue_cert("127.0.0.1")
    with tempfile.TemporaryDirectory() as folder:
        chain, key, roots = (Path(folder) / name for name in ("chain.pem", "key.pem", "roots.pem"))
        certificate.private_key_and_cert_chain_pem.write_to_path(str(chain))
        certificate.private_key_pem.write_to_path(str(key))
        authority.cert_pem.write_to_path(str(roots))
        context = ssl.create_default_context(cafile=str(roots))

        def tessaline(base: str) -> float:
            spent = one_flow(base)
            handshakes = server_connections(base, context)
            assert handshakes == 1, f"{handshakes} connections for one login"
            return spent

        def on_a_new_server(login: Callable[[str], float]) -> float:
            """With recently used data in the CPU's caches, but no used connection."""
            with running_server(0, (chain, key)) as before, running_server(0, (chain, key)) as server:
                login(before.base)
                return login(server.base)

        logins = {
            "tessaline": tessaline,
            "urllib": lambda base: seconds(lambda: through_urllib(base, context)),
            "bare libcurl": lambda base: seconds(lambda: floors.bare_login(login_urls(base), LOGIN_BODIES)),
        }
        with _trusting(roots):
            samples = in_turns(
                {name: partial(on_a_new_server, login) for name, login in logins.items()}, rounds
            )
    figures = [
        Figure(
            "login over HTTPS",
            "urllib",
            Ratio.of(samples["tessaline"], samples["urllib"]),
            0.4,
            note="one TLS handshake, by the server's count",
        ),
        Figure(
            "the same three requests by bare libcurl",
            "urllib",
            Ratio.of(samples["bare libcurl"], samples["urllib"]),
            None,
            note="without a signature, a token or a thread",
        ),
    ]
    return Group("A login over HTTPS", figures, medians_of(samples))


def server_connections(base: str, context: ssl.SSLContext) -> int:
    """Connections accepted before that of this request."""
    with urllib.request.urlopen(base + "/count", timeout=30, context=context) as response:
        return json.load(response)["connections"] - 1


class _trusting:
    """Makes the default transport trust these roots, as an operator would: through the environment."""

    def __init__(self, roots: Path) -> None:
        self._roots = str(roots)

    def __enter__(self) -> None:
        self._before = os.environ.get("SSL_CERT_FILE")
        os.environ["SSL_CERT_FILE"] = self._roots

    def __exit__(self, *_: object) -> None:
        if self._before is None:
            del os.environ["SSL_CERT_FILE"]
        else:
            os.environ["SSL_CERT_FILE"] = self._before


def canned_answers() -> Callable[..., Any]:
    """A transport that costs almost nothing."""
    token = jwt.encode({"sub": Account.from_key(KEY).address}, "x" * 32)
    verified = json.dumps({"token": token, "expires_at": 0, "wallet_secret": "c2VjcmV0"}).encode()
    challenge = b'{"challenge_id": "c", "message": "Sign in to the benchmark, nonce 0123456789abcdef"}'
    nothing: dict[str, Any] = {}

    def transport(method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        return 200, nothing, verified if url.endswith(VERIFY) else challenge

    return transport


def login_in_memory(rounds: int) -> Group:
    """The cost of a login without its transport, including the start of its thread."""
    transport = canned_answers()
    microseconds = []
    for _ in range(rounds):
        spent = 0.0
        for _ in range(20):
            with new_manager("https://auth.example.test", _transport=transport) as manager:
                spent += seconds(manager.authenticate)
        own = seconds(lambda: [transport("POST", "/", headers=None, body=None) for _ in range(60)])
        microseconds.append((spent - own) / 20 * 1e6)
    figure = Figure("login with an in-memory transport", "µs", Ratio.around(microseconds), 150.0)
    return Group("A login in memory", [figure], {"login": figure.ratio.median / 1e6})

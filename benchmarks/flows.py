"""Whole logins, alone and in crowds, over the default transport and in memory."""

from __future__ import annotations

import itertools
import json
import os
import ssl
import tempfile
import threading
import time
import urllib.request
from collections.abc import Callable
from pathlib import Path
from typing import Any

import floors
import jwt
import trustme
from eth_account import Account

from tessaline import auth

from .places import CHALLENGE, KEY, REGISTER, VERIFY, running_server
from .ratios import Figure, Group, Ratio, in_turns, medians_of

PEOPLE = 64
WALLETS = 1000
ERAS = itertools.count(2)


def seconds(operation: Callable[[], Any]) -> float:
    begin = time.perf_counter()
    operation()
    return time.perf_counter() - begin


class Crowd:
    """Threads that do one thing at the same moment; tells when each ended."""

    def __init__(self, people: int, errand: Callable[[], Any]) -> None:
        self.ended: list[float] = []
        self._errand = errand
        self._barrier = threading.Barrier(people + 1)
        self._threads = [threading.Thread(target=self._go) for _ in range(people)]
        for thread in self._threads:
            thread.start()

    def _go(self) -> None:
        self._barrier.wait(30)
        try:
            self._errand()
        except Exception as error:
            self.failure = error
        self.ended.append(time.perf_counter())

    def released(self) -> float:
        """The seconds until the slowest had ended."""
        begin = time.perf_counter()
        self._barrier.wait(30)
        for thread in self._threads:
            thread.join(60)
        return max(self.ended) - begin


def new_manager(base: str, **options: Any) -> Any:
    return auth.AuthManager(KEY, base, **options)


def one_flow(base: str) -> float:
    with new_manager(base) as manager:
        return seconds(lambda: swallowed(manager.authenticate))


def swallowed(operation: Callable[[], Any]) -> None:
    try:
        operation()
    except Exception as error:
        if type(error).__name__ != "AuthError":
            raise


def crowd_at_cold_start(base: str) -> float:
    with new_manager(base) as manager:
        return Crowd(PEOPLE, manager.authenticate).released()


def crowd_at_expiry(base: str) -> float:
    now = [1000.0]
    with new_manager(base, clock=lambda: now[0]) as manager:
        manager.authenticate()
        crowd = Crowd(PEOPLE, manager.get_token)
        now[0] += 100_000
        return crowd.released()


def single_flights(rounds: int) -> Group:
    """64 callers that need one login: they all wait for one flow, not for each other."""
    figures, medians = [], {}
    with running_server(delay_milliseconds=200) as server:
        kinds: dict[str, tuple[Callable[[str], float], str, int]] = {
            "cold start": (crowd_at_cold_start, server.base, 3),
            "expiry": (crowd_at_expiry, server.base, 6),
            "failing source": (crowd_at_cold_start, server.base + "/refuse", 3),
        }
        for name, (crowd, base, exchanges) in kinds.items():
            before = server.count()[1]
            samples = in_turns(
                {
                    "one": lambda base=base: one_flow(base),
                    "crowd": lambda crowd=crowd, base=base: crowd(base),
                },
                rounds,
            )
            answered = server.count()[1] - before
            expected = (rounds + 1) * (3 + exchanges)
            assert answered == expected, f"{name}: {answered} exchanges instead of {expected}"
            ratio = Ratio.of(samples["crowd"], samples["one"])
            note = "one flow on the wire, by the server's count"
            figures.append(Figure(f"slowest of {PEOPLE} callers, {name}", "one flow", ratio, 1.25, note=note))
            medians |= {
                f"{PEOPLE} callers, {name}": medians_of(samples)["crowd"],
                f"one flow, {name}": medians_of(samples)["one"],
            }
    return Group("Callers that come together", figures, medians)


def woken_waiters(rounds: int) -> Group:
    """How long after a store the last of 64 waiters runs."""

    class Noting(auth.AuthManager):
        def _store_auth_result(self, *result: Any) -> None:
            self.stored_at = time.perf_counter()
            super()._store_auth_result(*result)

    delays = []
    with running_server(delay_milliseconds=20) as server:
        for _ in range(rounds + 1):
            with Noting(KEY, server.base) as manager:
                crowd = Crowd(PEOPLE, manager.authenticate)
                crowd.released()
                delays.append((max(crowd.ended) - manager.stored_at) * 1000)
    figure = Figure(f"{PEOPLE} waiters, the last one runs after", "ms", Ratio.around(delays[1:]), 5.0)
    return Group("Waking", [figure], {"last waiter": figure.ratio.median / 1000})


def through_urllib(base: str, context: ssl.SSLContext) -> None:
    address = Account.from_key(KEY).address.lower()
    steps = (
        (REGISTER, {"wallet_address": address}),
        (CHALLENGE, {"wallet_address": address}),
        (VERIFY, {"challenge_id": address, "signature": "0x" + "00" * 65}),
    )
    for path, body in steps:
        headers = {"Content-Type": "application/json"}
        request = urllib.request.Request(base + path, json.dumps(body).encode(), headers, method="POST")
        with urllib.request.urlopen(request, timeout=30, context=context) as response:
            response.read()


def login_over_https(rounds: int) -> Group:
    """Register, challenge, verify over TLS from nothing, beside the same three calls of urllib."""
    authority = trustme.CA()
    certificate = authority.issue_cert("127.0.0.1")
    with tempfile.TemporaryDirectory() as folder:
        chain, key, roots = (Path(folder) / name for name in ("chain.pem", "key.pem", "roots.pem"))
        certificate.private_key_and_cert_chain_pem.write_to_path(str(chain))
        certificate.private_key_pem.write_to_path(str(key))
        authority.cert_pem.write_to_path(str(roots))
        context = ssl.create_default_context(cafile=str(roots))

        samples: dict[str, list[float]] = {"tessaline": [], "urllib": []}
        with _trusting(roots):
            for _ in range(rounds):
                # A server of its own each time, so that no connection is left over from the last login.
                with running_server(0, (chain, key)) as server:
                    samples["tessaline"].append(one_flow(server.base))
                    handshakes = server_connections(server.base, context)
                    assert handshakes == 1, f"{handshakes} connections for one login"
                with running_server(0, (chain, key)) as server:
                    samples["urllib"].append(seconds(lambda base=server.base: through_urllib(base, context)))
    ratio = Ratio.of(samples["tessaline"], samples["urllib"])
    figure = Figure("login over HTTPS", "urllib", ratio, 0.4, note="one TLS handshake, by the server's count")
    return Group("A login over HTTPS", [figure], medians_of(samples))


def server_connections(base: str, context: ssl.SSLContext) -> int:
    """Connections that were accepted before this question's own."""
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
    """A transport that costs next to nothing."""
    token = jwt.encode({"sub": Account.from_key(KEY).address}, "x" * 32)
    verified = json.dumps({"token": token, "expires_at": 0, "wallet_secret": "c2VjcmV0"}).encode()
    challenge = b'{"challenge_id": "c", "message": "Sign in to the benchmark, nonce 0123456789abcdef"}'
    nothing = {}

    def transport(method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        return 200, nothing, verified if url.endswith(VERIFY) else challenge

    return transport


def login_in_memory(rounds: int) -> Group:
    """What a login costs besides its transport, the start of its thread included."""
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


def threads_at_once(rounds: int) -> Group:
    """get_token() from 8 threads together, beside the same number of calls from one."""
    calls = 400_000
    with new_manager("https://auth.example.test", _transport=canned_answers()) as manager:
        manager.authenticate()

        def serve(times: int) -> None:
            get_token = manager.get_token
            for _ in range(times):
                get_token()

        samples = in_turns(
            {
                "8 threads": lambda: Crowd(8, lambda: serve(calls // 8)).released(),
                "1 thread": lambda: Crowd(1, lambda: serve(calls)).released(),
            },
            rounds,
        )
    ratio = Ratio.of(samples["1 thread"], samples["8 threads"])
    figure = Figure("throughput of 8 threads", "one thread's", ratio, 0.9, at_most=False)
    per_call = {name: value / calls for name, value in medians_of(samples).items()}
    return Group("get_token() from several threads", [figure], per_call)


def era_of_a_fleet(rounds: int) -> Group:
    """1,000 managers of one process told of an era at once, beside the same exchanges by bare libcurl."""

    with running_server(delay_milliseconds=5) as server:
        fleet = [auth.AuthManager(f"{number + 1:064x}", server.base) for number in range(WALLETS)]
        for manager in fleet:
            manager.authenticate()
        urls = tuple(server.base + path for path in (REGISTER, CHALLENGE, VERIFY))
        wallet = json.dumps({"wallet_address": "0x" + "ab" * 20})
        signature = json.dumps({"challenge_id": "0x" + "ab" * 20, "signature": "0x" + "00" * 65})

        def told() -> float:
            era = next(ERAS)
            server.begin_era(era)
            begin = time.perf_counter()
            for manager in fleet:
                manager.notify_era_change(era)
            for manager in fleet:
                event = manager._auth_event
                assert event is None or event.wait(60)
            spent = time.perf_counter() - begin
            for manager in fleet:
                manager.get_token()
            return spent

        samples = in_turns(
            {
                "tessaline": told,
                "bare libcurl": lambda: floors.bare_crowd(WALLETS, urls, (wallet, wallet, signature)),
            },
            rounds,
        )
        for manager in fleet:
            manager.close()
    ratio = Ratio.of(samples["bare libcurl"], samples["tessaline"])
    figure = Figure(
        f"throughput of {WALLETS:,} managers at an era", "bare libcurl's", ratio, 0.7, at_most=False
    )
    return Group("An era for a whole fleet", [figure], medians_of(samples))

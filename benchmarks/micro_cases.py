"""What takes under a millisecond, one case per call of this program, timed by pyperf.

    python -m benchmarks.micro_cases --case CASE [pyperf's options]

Each case is a function of a number of loops that gives the seconds they took; the cases of a group are
comparable.
"""

from __future__ import annotations

import json
import os
import time
from collections.abc import Callable
from typing import Any

import pyperf

from .places import KEY, REGISTER, VERIFY, use_build

use_build()

Timed = Callable[[int], float]

UNROLLED = 10
UNROLLED_CASES = ("tessaline", "empty native method", "plain Python", "its manager's")
BODY = json.dumps({"wallet_address": "0x" + "ab" * 20})
JSON_TYPE = {"Content-Type": "application/json"}
MESSAGE_SIZES = {"32 B": 32, "16 KiB": 16384}


def repeated(operation: Callable[[], Any], clock: Callable[[], float] = time.perf_counter) -> Timed:
    def timed(loops: int) -> float:
        begin = clock()
        for _ in range(loops):
            operation()
        return clock() - begin

    return timed


def unrolled(provider: Any) -> Timed:
    """`provider.get_token()` ten times a loop, so that little of the loop itself is measured."""

    def timed(loops: int) -> float:
        begin = time.perf_counter()
        for _ in range(loops):
            provider.get_token()
            provider.get_token()
            provider.get_token()
            provider.get_token()
            provider.get_token()
            provider.get_token()
            provider.get_token()
            provider.get_token()
            provider.get_token()
            provider.get_token()
        return time.perf_counter() - begin

    return timed


# Serving


def in_memory(
    method: str, url: str, headers: Any = None, body: Any = None
) -> tuple[int, dict[str, str], bytes]:
    import jwt

    if not url.endswith(VERIFY):
        return 200, {}, b'{"challenge_id": "c", "message": "m"}'
    from eth_account import Account

    token = jwt.encode({"sub": Account.from_key(KEY).address}, "x" * 32)
    return 200, {}, json.dumps({"token": token, "expires_at": 0, "wallet_secret": "c2VjcmV0"}).encode()


def serve_tessaline() -> Timed:
    from tessaline import auth

    manager = auth.AuthManager(KEY, "https://auth.example.test", _transport=in_memory)
    manager.authenticate()
    return unrolled(manager)


def serve_keeper() -> Timed:
    from tessaline import auth
    from tessaline.keeper import Keeper

    keeper = Keeper(auth.AuthManager(KEY, "https://auth.example.test", _transport=in_memory))
    keeper.start()
    return unrolled(keeper)


def serve_empty() -> Timed:
    import floors

    return unrolled(floors.Empty())


def serve_plain() -> Timed:
    from .plain_manager import PlainAuthManager

    manager = PlainAuthManager(KEY, "https://auth.example.test", transport=in_memory)
    manager.authenticate()
    return unrolled(manager)


def serve_google() -> Timed:
    import datetime

    from google.oauth2.credentials import Credentials

    # Its clock is naive UTC.
    expiry = datetime.datetime.now(datetime.UTC).replace(tzinfo=None) + datetime.timedelta(days=1)
    credentials = Credentials("token", expiry=expiry)
    headers: dict[str, str] = {}

    def hit() -> None:
        credentials.before_request(None, "GET", "https://example.test/", headers)

    return repeated(hit)


def serve_botocore() -> Timed:
    import datetime

    from botocore.credentials import RefreshableCredentials

    def refresh() -> dict[str, str]:
        raise AssertionError("the credentials are fresh")

    expiry = datetime.datetime.now(datetime.UTC) + datetime.timedelta(days=1)
    credentials = RefreshableCredentials("key", "secret", "token", expiry, refresh, "benchmark")
    return repeated(lambda: credentials.get_frozen_credentials().token)


# Signing


def sign_tessaline(size: int) -> Timed:
    import floors

    return lambda loops: floors.login_signing(loops, size)


def sign_bare(size: int) -> Timed:
    import floors

    return lambda loops: floors.bare_signing(loops, size)


def sign_coincurve(size: int) -> Timed:
    from coincurve import PrivateKey
    from eth_hash.auto import keccak

    key = PrivateKey(bytes.fromhex(KEY))
    text = b"\x19Ethereum Signed Message:\n" + str(size).encode() + b"m" * size
    return repeated(lambda: key.sign_recoverable(text, hasher=keccak))


def sign_eth_account(size: int, backend: str) -> Timed:
    os.environ["ECC_BACKEND_CLASS"] = f"eth_keys.backends.{backend}"
    from eth_account import Account
    from eth_account.messages import encode_defunct

    account = Account.from_key(KEY)
    text = "m" * size
    return repeated(lambda: account.sign_message(encode_defunct(text=text)).signature)


# Construction


def construct_tessaline() -> Timed:
    from tessaline import auth

    return repeated(lambda: auth.AuthManager(KEY, "https://auth.example.test"))


def construct_bare() -> Timed:
    import floors

    return lambda loops: floors.bare_derivation(loops)


def construct_plain() -> Timed:
    from .plain_manager import PlainAuthManager

    return repeated(lambda: PlainAuthManager(KEY, "https://auth.example.test"))


# One POST over a connection that is kept


def poster(client: str) -> Callable[[], Any]:
    url = os.environ["BENCHMARK_SERVER"] + REGISTER
    if client == "tessaline":
        from tessaline import auth

        return lambda: auth._default_http_transport("POST", url, headers=JSON_TYPE, body=BODY)
    if client == "urllib":
        import urllib.request

        def post() -> bytes:
            request = urllib.request.Request(url, data=BODY.encode(), headers=JSON_TYPE, method="POST")
            with urllib.request.urlopen(request, timeout=30) as response:
                return response.read()

        return post
    if client == "http.client":
        import http.client

        host = url.split("/")[2]
        connection = http.client.HTTPConnection(host, timeout=30)

        def exchange() -> bytes:
            connection.request("POST", REGISTER, body=BODY.encode(), headers=JSON_TYPE)
            return connection.getresponse().read()

        return exchange
    if client == "requests":
        import requests

        session = requests.Session()
        return lambda: session.post(url, data=BODY, headers=JSON_TYPE, timeout=30).content
    import httpx

    pool = httpx.Client(timeout=30)
    return lambda: pool.post(url, content=BODY, headers=JSON_TYPE).content


def post_wall(client: str) -> Timed:
    return repeated(poster(client))


def post_cpu(client: str) -> Timed:
    return repeated(poster(client), time.process_time)


def post_bare(which: int) -> Timed:
    import floors

    url = os.environ["BENCHMARK_SERVER"] + REGISTER
    return lambda loops: floors.bare_posts(loops, url, BODY.encode())[which]


CLIENTS = ("tessaline", "urllib", "http.client", "requests", "httpx")

GROUPS: dict[str, dict[str, Callable[[], Timed]]] = {
    "get_token": {
        "tessaline": serve_tessaline,
        "empty native method": serve_empty,
        "plain Python": serve_plain,
        "google-auth": serve_google,
        "botocore": serve_botocore,
    },
    "get_token of a keeper": {
        "tessaline": serve_keeper,
        "its manager's": serve_tessaline,
    },
    **{
        f"signature {label}": {
            "tessaline": lambda size=size: sign_tessaline(size),  # type: ignore[misc]
            "bare libsecp256k1": lambda size=size: sign_bare(size),  # type: ignore[misc]
            "coincurve": lambda size=size: sign_coincurve(size),  # type: ignore[misc]
            "eth-account": lambda size=size: sign_eth_account(size, "NativeECCBackend"),  # type: ignore[misc]
            "eth-account with coincurve": lambda size=size: sign_eth_account(size, "CoinCurveECCBackend"),  # type: ignore[misc]
        }
        for label, size in MESSAGE_SIZES.items()
    },
    "construction": {
        "tessaline": construct_tessaline,
        "bare key derivation": construct_bare,
        "plain Python": construct_plain,
    },
    "POST wall": {
        **{client: lambda client=client: post_wall(client) for client in CLIENTS},  # type: ignore[misc]
        "bare libcurl": lambda: post_bare(0),
    },
    "POST CPU": {
        **{client: lambda client=client: post_cpu(client) for client in CLIENTS},  # type: ignore[misc]
        "bare libcurl": lambda: post_bare(1),
    },
}


def main() -> None:
    runner = pyperf.Runner(
        program_args=("-m", "benchmarks.micro_cases"),
        add_cmdline_args=lambda command, given: command.extend(("--case", given.case)),
    )
    runner.argparser.add_argument("--case", required=True, help="GROUP/CASE")
    group, case = runner.parse_args().case.split("/", 1)
    inner = UNROLLED if case in UNROLLED_CASES else 1
    # The set-up is for the worker, which is the process that measures.
    prepared: list[Timed] = []

    def timed(loops: int) -> float:
        if not prepared:
            prepared.append(GROUPS[group][case]())
        return prepared[0](loops)

    runner.bench_time_func(
        f"{group}/{case}", timed, inner_loops=inner if group.startswith("get_token") else 1
    )


if __name__ == "__main__":
    main()

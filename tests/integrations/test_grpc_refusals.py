"""Calls for which a gRPC server returns UNAUTHENTICATED, and what the interceptors do then."""

from __future__ import annotations

import asyncio
import gc
import threading
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import grpc
import grpc.aio
import pytest

from tessaline.integrations.grpc import WalletAioInterceptor, WalletCallCredentials, WalletInterceptor
from tests.integrations.sources import Moving, Source
from tests.sanitized import SANITIZER, patience

pytestmark = pytest.mark.skipif(SANITIZER is not None, reason="the core of gRPC is not instrumented")

SECONDS = patience(20.0)
METHOD = "/wallet.Registry/Serve"


class Registry:
    """A server that accepts one token only."""

    def __init__(self) -> None:
        self.serves = "second"
        self.refuses_with = grpc.StatusCode.UNAUTHENTICATED
        self.seen: list[str] = []
        self.answers = threading.Event()
        self.answers.set()

    def answer(self, _request: bytes, context: grpc.ServicerContext) -> bytes:
        assert self.answers.wait(SECONDS)
        token = str(dict(context.invocation_metadata())["authorization"]).removeprefix("Bearer ")
        self.seen.append(token)
        if token != self.serves:
            context.abort(self.refuses_with, "refused")
        return b"served"


@pytest.fixture(autouse=True)
def collected(no_thread_left: None) -> Iterator[None]:
    """The thread of `grpc.aio` ends with its last object, and a failed call is part of a reference cycle."""
    yield
    gc.collect()


@pytest.fixture
def registry() -> Registry:
    return Registry()


@pytest.fixture
def address(registry: Registry) -> Iterator[str]:
    with ThreadPoolExecutor(2) as pool:
        server = grpc.server(pool)
        handler: grpc.RpcMethodHandler[bytes, bytes] = grpc.unary_unary_rpc_method_handler(registry.answer)
        service = grpc.method_handlers_generic_handler("wallet.Registry", {"Serve": handler})
        server.add_generic_rpc_handlers((service,))
        port = server.add_secure_port("localhost:0", grpc.local_server_credentials())
        server.start()
        yield f"localhost:{port}"
        assert server.stop(None).wait(SECONDS)


Call = Callable[[str, Any], str]


def by_grpc(address: str, source: Any) -> str:
    with WalletCallCredentials(source) as wallet:
        credentials = wallet.composed_with(grpc.local_channel_credentials())
        with grpc.secure_channel(address, credentials) as channel:
            call: Any = grpc.intercept_channel(channel, WalletInterceptor(wallet)).unary_unary(METHOD)
            return called(lambda: call(b"", timeout=SECONDS))


def by_aio(address: str, source: Any) -> str:
    async def run() -> bytes:
        with WalletCallCredentials(source) as wallet:
            credentials = wallet.composed_with(grpc.local_channel_credentials())
            interceptors: Any = [WalletAioInterceptor(wallet)]
            async with grpc.aio.secure_channel(address, credentials, interceptors=interceptors) as channel:
                call: Any = channel.unary_unary(METHOD)
                return await call(b"", timeout=SECONDS)

    return called(lambda: asyncio.run(run()))


def called(call: Callable[[], bytes]) -> str:
    """The response, or the name of the status."""
    try:
        return call().decode()
    except grpc.RpcError as error:
        failed: Any = error
        return failed.code().name


@pytest.fixture(params=[by_grpc, by_aio])
def call(request: pytest.FixtureRequest) -> Call:
    return request.param


def test_a_refused_call_is_told_of_and_repeated(registry: Registry, address: str, call: Call) -> None:
    source = Source("first", "second", "third")
    assert call(address, source) == "served"
    assert source.reported == ["first"]
    assert registry.seen == ["first", "second"]


def test_it_is_repeated_once(registry: Registry, address: str, call: Call) -> None:
    source = Source("first", "late", "second")
    assert call(address, source) == "UNAUTHENTICATED"
    assert source.reported == ["first"]
    assert registry.seen == ["first", "late"]


def test_without_another_token_it_is_not_repeated(registry: Registry, address: str, call: Call) -> None:
    assert call(address, Source("first")) == "UNAUTHENTICATED"
    assert registry.seen == ["first"]


def test_a_source_that_listens_to_nobody_is_asked_again(registry: Registry, address: str, call: Call) -> None:
    assert call(address, Moving()) == "UNAUTHENTICATED"
    # Between the two calls the interceptor has asked whether there is another token.
    assert registry.seen == ["token-1", "token-3"]


def test_what_is_no_refusal_passes(registry: Registry, address: str, call: Call) -> None:
    class Empty(Source):
        def get_token(self) -> str:
            raise LookupError("no token")

    assert call(address, Empty()) == "UNAVAILABLE"
    served = Source("second")
    assert call(address, served) == "served"
    assert (served.reported, registry.seen) == ([], ["second"])


def test_only_that_status_is_a_refusal_of_the_token(registry: Registry, address: str, call: Call) -> None:
    registry.refuses_with = grpc.StatusCode.PERMISSION_DENIED
    source = Source("first", "second")
    assert call(address, source) == "PERMISSION_DENIED"
    assert (source.reported, registry.seen) == ([], ["first"])


def test_a_future_is_neither_waited_for_nor_repeated(registry: Registry, address: str) -> None:
    source = Source("first", "second")
    with WalletCallCredentials(source) as wallet:
        credentials = wallet.composed_with(grpc.local_channel_credentials())
        with grpc.secure_channel(address, credentials) as channel:
            call: Any = grpc.intercept_channel(channel, WalletInterceptor(wallet)).unary_unary(METHOD)
            registry.answers.clear()
            future = call.future(b"", timeout=SECONDS)
            registry.answers.set()
            assert called(future.result) == "UNAUTHENTICATED"
    assert (source.reported, registry.seen) == ([], ["first"])

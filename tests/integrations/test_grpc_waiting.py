"""Calls of gRPC that wait for their token: what calls the source, how often, and how the wait ends."""

from __future__ import annotations

import asyncio
import os
import queue
import threading
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import grpc
import grpc.aio
import pytest

from tessaline.integrations.grpc import WalletAioInterceptor, WalletCallCredentials
from tests.integrations.sources import Held, Source
from tests.sanitized import SANITIZER, patience
from tests.shared.threads import until, within

pytestmark = pytest.mark.skipif(SANITIZER is not None, reason="the core of gRPC is not instrumented")

SECONDS = patience(20.0)
CALLS = 10


class Replies:
    """The results of calls, in order."""

    def __init__(self) -> None:
        self.given: queue.SimpleQueue[tuple[Any, Exception | None]] = queue.SimpleQueue()

    def ask(self, wallet: WalletCallCredentials) -> None:
        context: Any = None
        take: Any = self._take
        wallet(context, take)

    def _take(self, metadata: Any, error: Exception | None) -> None:
        self.given.put((metadata, error))

    def next(self) -> tuple[Any, Exception | None]:
        return self.given.get(timeout=SECONDS)


GIVEN = ((("authorization", "Bearer token"),), None)


def test_one_question_answers_all_that_wait() -> None:
    source, replies = Held(), Replies()
    with WalletCallCredentials(source) as wallet:
        replies.ask(wallet)
        assert source.asked.wait(SECONDS)
        for _ in range(CALLS):
            replies.ask(wallet)
        source.let_go.set()
        assert [replies.next() for _ in range(CALLS + 1)] == [GIVEN] * (CALLS + 1)
    assert source.threads == ["wallet-token"] * 2


def test_the_thread_is_there_only_while_somebody_waits() -> None:
    before, replies = set(threading.enumerate()), Replies()
    with WalletCallCredentials(Source("token")) as wallet:
        for _ in range(2):
            replies.ask(wallet)
            assert replies.next() == GIVEN
            until(lambda: set(threading.enumerate()) <= before, "the end of the thread")


def test_closing_answers_who_waits_and_does_not_wait_for_the_source() -> None:
    source, replies = Held(), Replies()
    wallet = WalletCallCredentials(source)
    replies.ask(wallet)
    assert source.asked.wait(SECONDS)
    for _ in range(CALLS):
        replies.ask(wallet)
    try:
        within(SECONDS / 2, wallet.close)
        for _ in range(CALLS):
            metadata, error = replies.next()
            assert (metadata, str(error)) == ((), "the credentials are closed")
    finally:
        source.let_go.set()
    assert replies.next() == GIVEN
    replies.ask(wallet)
    assert str(replies.next()[1]) == "the credentials are closed"
    assert len(source.threads) == 1


class Exiting:
    """A source that ends the calling thread."""

    def get_token(self) -> str:
        raise SystemExit(3)


def test_a_source_that_ends_the_thread_leaves_no_call_waiting() -> None:
    replies = Replies()
    with WalletCallCredentials(Exiting()) as wallet:
        for _ in range(2):
            replies.ask(wallet)
            metadata, error = replies.next()
            assert (metadata, str(error)) == ((), "the source of tokens raised SystemExit")


@pytest.mark.filterwarnings("ignore:.*multi-threaded, use of fork:DeprecationWarning")
def test_a_forked_child_begins_anew() -> None:
    source, replies = Held(), Replies()
    with WalletCallCredentials(source) as wallet:
        replies.ask(wallet)
        assert source.asked.wait(SECONDS)
        child = os.fork()
        if child == 0:
            status = 1
            try:
                source.let_go.set()
                replies = Replies()
                replies.ask(wallet)
                status = 0 if replies.given.get(timeout=SECONDS / 2) == GIVEN else 2
                wallet.close()
            finally:
                os._exit(status)
        _, ended = os.waitpid(child, 0)
        source.let_go.set()
        assert replies.next() == GIVEN
    assert os.waitstatus_to_exitcode(ended) == 0


def test_a_call_that_is_cancelled_under_asyncio_ends_at_the_server_too() -> None:
    arrived, cancelled = threading.Event(), threading.Event()

    def answer(_request: bytes, context: grpc.ServicerContext) -> bytes:
        ended = threading.Event()
        context.add_callback(ended.set)
        arrived.set()
        if ended.wait(SECONDS / 2):
            cancelled.set()
        return b""

    async def run(address: str) -> None:
        with WalletCallCredentials(Source("token")) as wallet:
            credentials = wallet.composed_with(grpc.local_channel_credentials())
            interceptors: Any = [WalletAioInterceptor(wallet)]
            async with grpc.aio.secure_channel(address, credentials, interceptors=interceptors) as channel:
                call: Any = channel.unary_unary("/wallet.Registry/Serve")

                async def ask() -> bytes:
                    return await call(b"")

                asking = asyncio.create_task(ask())
                assert await asyncio.to_thread(arrived.wait, SECONDS)
                asking.cancel()
                with pytest.raises(asyncio.CancelledError):
                    await asking
                # While the channel is open, because closing it ends its calls.
                assert await asyncio.to_thread(cancelled.wait, SECONDS / 4)

    with ThreadPoolExecutor(2) as pool:
        server = grpc.server(pool)
        handler: grpc.RpcMethodHandler[bytes, bytes] = grpc.unary_unary_rpc_method_handler(answer)
        service = grpc.method_handlers_generic_handler("wallet.Registry", {"Serve": handler})
        server.add_generic_rpc_handlers((service,))
        port = server.add_secure_port("localhost:0", grpc.local_server_credentials())
        server.start()
        try:
            asyncio.run(run(f"localhost:{port}"))
        finally:
            assert server.stop(0).wait(SECONDS)

"""How requests in an event loop get their token: at once if available, otherwise by one thread for all."""

from __future__ import annotations

import asyncio
import secrets
import threading
from collections.abc import Awaitable, Callable

import aiohttp
import httpx
import pytest
from aiohttp import web

from tessaline.auth import AuthManager
from tessaline.integrations.aiohttp import WalletMiddleware
from tessaline.integrations.httpx import WalletAuth
from tessaline.keeper import Keeper
from tessaline.testing import URL, FakeClock, FakeService
from tests.integrations.sources import Held
from tests.shared.threads import until

REQUESTS = 200


async def all_by_httpx(source: Held, count: int) -> list[int]:
    auth = WalletAuth(source, URL)
    transport = httpx.MockTransport(lambda request: httpx.Response(200))
    async with httpx.AsyncClient(transport=transport, auth=auth) as client:
        asking = [asyncio.create_task(client.get(URL)) for _ in range(count)]
        await let_go(source)
        return [(await one).status_code for one in asking]


async def all_by_aiohttp(source: Held, count: int) -> list[int]:
    async def answer(_: web.BaseRequest) -> web.Response:
        return web.Response()

    runner = web.ServerRunner(web.Server(answer))
    await runner.setup()
    site = web.TCPSite(runner, "127.0.0.1", 0)
    await site.start()
    host, port = runner.addresses[0][:2]
    url = f"http://{host}:{port}"
    try:
        async with aiohttp.ClientSession(middlewares=[WalletMiddleware(source, url)]) as session:

            async def ask() -> int:
                async with session.get(url) as reply:
                    return reply.status

            asking = [asyncio.create_task(ask()) for _ in range(count)]
            await let_go(source)
            return [await one for one in asking]
    finally:
        await runner.cleanup()


async def let_go(source: Held) -> None:
    """After a call of the source, and after every request has had turns to make one."""
    await asyncio.to_thread(source.asked.wait, 20)
    for _ in range(20):
        await asyncio.sleep(0)
    source.let_go.set()


@pytest.mark.parametrize("ask", [all_by_httpx, all_by_aiohttp])
def test_all_requests_of_a_loop_wait_on_one_thread(ask: Callable[[Held, int], Awaitable[list[int]]]) -> None:
    source = Held()

    async def run() -> list[int]:
        return await ask(source, REQUESTS)

    assert asyncio.run(run()) == [200] * REQUESTS
    assert set(source.threads) == {"tessaline-waiter"}
    # The first request's call, and that of all which arrived during it.
    assert len(source.threads) <= 2


def made_manager() -> AuthManager:
    return AuthManager(secrets.token_hex(32), URL, clock=FakeClock(), _transport=FakeService())


def test_a_token_that_is_there_is_put_on_without_giving_way() -> None:
    before = set(threading.enumerate())
    with Keeper(made_manager()) as keeper, made_manager() as manager:
        keeper.start()
        manager.authenticate()
        own = set(threading.enumerate())
        for source in (keeper, keeper[next(iter(keeper))], manager):
            request = httpx.Request("GET", URL)
            flow = WalletAuth(source, URL).async_auth_flow(request)
            with pytest.raises(StopIteration) as done:
                # If it waited, the event loop would find it here.
                flow.__anext__().send(None)
            assert done.value.value is request
            assert request.headers["Authorization"] == f"Bearer {source.get_token()}"
            with pytest.raises(StopIteration):
                flow.aclose().send(None)
        assert set(threading.enumerate()) <= own
    until(lambda: set(threading.enumerate()) <= before, "the end of every thread")

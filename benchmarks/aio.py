"""Requests in an event loop that get the token, compared with requests with a constant header."""

from __future__ import annotations

import asyncio
import time
from collections.abc import Awaitable, Callable

import httpx

from tessaline.aio import AsyncTokens
from tessaline.auth import AuthManager
from tessaline.integrations.httpx import WalletAuth
from tessaline.keeper import Keeper
from tessaline.testing import KEY, URL, FakeService

from .ratios import Figure, Group, Ratio, in_turns, medians_of

AT_ONCE = 100
TURNS = 20
MOST = 1.03

Request = Callable[[], Awaitable[object]]


async def _answer(request: httpx.Request) -> httpx.Response:
    return httpx.Response(200)


def _with_header(client: httpx.AsyncClient, ask: Callable[[], Awaitable[str]]) -> Request:
    async def request() -> object:
        return await client.get(URL, headers={"Authorization": f"Bearer {await ask()}"})

    return request


def _with_constant(client: httpx.AsyncClient, token: str) -> Request:
    async def request() -> object:
        return await client.get(URL, headers={"Authorization": f"Bearer {token}"})

    return request


async def _burst(request: Request) -> float:
    begin = time.process_time()
    await asyncio.gather(*(request() for _ in range(AT_ONCE)))
    return (time.process_time() - begin) / AT_ONCE


def requests_of_a_loop(rounds: int) -> Group:
    """The processor time of a request over a mock transport, 100 at a time."""
    figures, medians = [], {}
    service = FakeService()
    with (
        asyncio.Runner() as runner,
        AuthManager(KEY, URL, _transport=service) as manager,
        Keeper(AuthManager(KEY, URL, _transport=service)) as keeper,
    ):
        manager.authenticate()
        keeper.start()
        token = keeper.get_token()
        transport = httpx.MockTransport(_answer)
        plain = httpx.AsyncClient(transport=transport)
        headed = httpx.AsyncClient(transport=transport, headers={"Authorization": f"Bearer {token}"})
        hooked = httpx.AsyncClient(transport=transport, auth=WalletAuth(keeper, URL))
        constant = _with_constant(plain, token)
        comparisons: list[tuple[str, Request, str, Request, float | None]] = [
            (
                "AsyncTokens of a keeper",
                _with_header(plain, AsyncTokens(keeper).get_token),
                "constant header",
                constant,
                MOST,
            ),
            (
                "AsyncTokens of a manager",
                _with_header(plain, AsyncTokens(manager).get_token),
                "constant header",
                constant,
                MOST,
            ),
            (
                "hook of a keeper",
                lambda: hooked.get(URL),
                "client's constant header",
                lambda: headed.get(URL),
                MOST,
            ),
            (
                "thread of the loop's pool",
                _with_header(plain, lambda: asyncio.to_thread(manager.get_token)),
                "constant header",
                constant,
                None,
            ),
        ]

        def measure(request: Request) -> Callable[[], float]:
            return lambda: runner.run(_burst(request))

        for subject, asking, beside, fixed, target in comparisons:
            # Many short rounds: the speed of a shared machine changes within a second.
            samples = in_turns({subject: measure(asking), beside: measure(fixed)}, TURNS * rounds)
            ratio = Ratio.of(samples[subject], samples[beside])
            figures.append(Figure(f"httpx request, {subject}", beside, ratio, target))
            medians.update(medians_of(samples))
        for client in (plain, headed, hooked):
            runner.run(client.aclose())
    return Group("Requests of an event loop", figures, medians)

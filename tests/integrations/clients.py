"""The HTTP clients that have a hook, with one interface: one request, by a new client."""

from __future__ import annotations

import asyncio
from collections.abc import AsyncIterator, Callable, Iterator
from dataclasses import dataclass
from typing import Any

import aiohttp
import httpx
import requests

from tessaline._ready import TokenSource
from tessaline.integrations.aiohttp import WalletMiddleware
from tessaline.integrations.httpx import WalletAuth as HttpxWalletAuth
from tessaline.integrations.requests import WalletAuth as RequestsWalletAuth
from tests.sanitized import patience

SECONDS = patience(20.0)


@dataclass
class Wanted:
    """A request with the hook for `server_url`; `once` sends the body so that it cannot be sent again."""

    tokens: TokenSource
    server_url: str
    url: str
    body: bytes = b'{"display_name": "Ada"}'
    once: bool = False


HEADERS = {"Content-Type": "application/json"}


def pieces(body: bytes) -> Iterator[bytes]:
    yield body


async def async_pieces(body: bytes) -> AsyncIterator[bytes]:
    yield body


def by_requests(wanted: Wanted) -> tuple[int, bytes]:
    body: Any = pieces(wanted.body) if wanted.once else wanted.body
    with requests.Session() as session:
        session.trust_env = False
        session.auth = RequestsWalletAuth(wanted.tokens, wanted.server_url)
        answer = session.post(wanted.url, data=body, headers=HEADERS, timeout=SECONDS)
        return answer.status_code, answer.content


def by_httpx(wanted: Wanted) -> tuple[int, bytes]:
    body = pieces(wanted.body) if wanted.once else wanted.body
    auth = HttpxWalletAuth(wanted.tokens, wanted.server_url)
    with httpx.Client(auth=auth, timeout=SECONDS, follow_redirects=True, trust_env=False) as client:
        answer = client.post(wanted.url, content=body, headers=HEADERS)
        return answer.status_code, answer.content


async def by_async_httpx(wanted: Wanted) -> tuple[int, bytes]:
    body = async_pieces(wanted.body) if wanted.once else wanted.body
    auth = HttpxWalletAuth(wanted.tokens, wanted.server_url)
    async with httpx.AsyncClient(
        auth=auth, timeout=SECONDS, follow_redirects=True, trust_env=False
    ) as client:
        answer = await client.post(wanted.url, content=body, headers=HEADERS)
        return answer.status_code, answer.content


async def by_aiohttp(wanted: Wanted) -> tuple[int, bytes]:
    body = async_pieces(wanted.body) if wanted.once else wanted.body
    middleware = WalletMiddleware(wanted.tokens, wanted.server_url)
    timeout = aiohttp.ClientTimeout(total=SECONDS)
    async with (
        aiohttp.ClientSession(middlewares=[middleware], timeout=timeout) as session,
        session.post(wanted.url, data=body, headers=HEADERS) as answer,
    ):
        return answer.status, await answer.read()


ASYNC_CLIENTS = {"httpx, async": by_async_httpx, "aiohttp": by_aiohttp}
CLIENTS: dict[str, Callable[[Wanted], tuple[int, bytes]]] = {
    "requests": by_requests,
    "httpx": by_httpx,
    "httpx, async": lambda wanted: asyncio.run(by_async_httpx(wanted)),
    "aiohttp": lambda wanted: asyncio.run(by_aiohttp(wanted)),
}

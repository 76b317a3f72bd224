"""The header with the token: what its repr shows, and which tokens it cannot carry."""

from __future__ import annotations

import asyncio
from collections.abc import Callable

import aiohttp
import pytest
import requests

from devserver.testing import DevServer
from tessaline.integrations.aiohttp import WalletMiddleware
from tessaline.integrations.grpc import WalletCallCredentials
from tessaline.integrations.requests import WalletAuth
from tests.integrations.clients import CLIENTS, SECONDS, Wanted
from tests.integrations.sources import Source
from tests.integrations.test_grpc_waiting import Replies

NAME = "/api/profile/display_name"
TOKEN = "payload.of.a.token"
UNFIT = [f"{TOKEN}\n", f"{TOKEN}\r\nX: y", f"{TOKEN}\x01", f"{TOKEN}\u20ac", f"{TOKEN} ", ""]

Client = Callable[[Wanted], tuple[int, bytes]]


def test_what_aiohttp_raises_does_not_show_it(server: DevServer) -> None:
    async def ask() -> None:
        middleware = WalletMiddleware(Source(TOKEN), server.url)
        async with (
            aiohttp.ClientSession(middlewares=[middleware]) as session,
            session.post(server.url + NAME, data=b"{}") as answer,
        ):
            answer.raise_for_status()

    with pytest.raises(aiohttp.ClientResponseError) as caught:
        asyncio.run(ask())
    assert caught.value.status == 401
    assert "Authorization" in repr(caught.value)
    assert TOKEN not in repr(caught.value)


def test_nor_do_the_headers_of_a_request(server: DevServer) -> None:
    answer = requests.post(
        server.url + NAME, b"{}", auth=WalletAuth(Source(TOKEN), server.url), timeout=SECONDS
    )
    assert answer.request.headers["Authorization"] == f"Bearer {TOKEN}"
    assert TOKEN not in repr(answer.request.headers)


@pytest.mark.parametrize("token", UNFIT, ids=ascii)
@pytest.mark.parametrize("client", CLIENTS.values(), ids=CLIENTS)
def test_a_token_that_no_header_carries_is_not_sent_and_not_quoted(
    server: DevServer, client: Client, token: str
) -> None:
    with pytest.raises(ValueError, match="no header can carry") as caught:
        client(Wanted(Source(token), server.url, server.url + NAME))
    assert TOKEN not in str(caught.value)
    assert caught.value.__context__ is None
    assert server.requests == []


@pytest.mark.parametrize("client", CLIENTS.values(), ids=CLIENTS)
def test_nor_is_it_sent_in_place_of_a_refused_one(server: DevServer, client: Client) -> None:
    with pytest.raises(ValueError, match="no header can carry"):
        client(Wanted(Source("refused", f"{TOKEN}\n"), server.url, server.url + NAME))
    assert server.state()["counts"]["display_name"] == 1


@pytest.mark.parametrize("token", UNFIT, ids=ascii)
def test_a_call_of_grpc_is_told(token: str) -> None:
    replies = Replies()
    with WalletCallCredentials(Source(token)) as wallet:
        replies.ask(wallet)
        metadata, error = replies.next()
    assert metadata == ()
    assert isinstance(error, ValueError)
    assert TOKEN not in str(error)
    assert wallet.latest is None

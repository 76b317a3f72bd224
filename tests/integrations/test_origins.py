"""The services to which a hook can be bound, and what belongs to one."""

from __future__ import annotations

import asyncio
from types import SimpleNamespace
from typing import Any

import pytest
from multidict import CIMultiDict
from yarl import URL

from tessaline.integrations.aiohttp import WalletMiddleware
from tessaline.integrations.httpx import WalletAuth as HttpxWalletAuth
from tessaline.integrations.requests import WalletAuth as RequestsWalletAuth
from tests.integrations.sources import Source


@pytest.mark.parametrize("hook", [RequestsWalletAuth, HttpxWalletAuth, WalletMiddleware])
@pytest.mark.parametrize(
    "server_url",
    [
        "http://service.example",
        "service.example",
        "//service.example",
        "ftp://service.example",
        "https://",
        "https://ada@service.example",
        "https://service.example:0",
    ],
)
def test_a_url_that_is_no_place_for_a_token_is_refused(hook: Any, server_url: str) -> None:
    with pytest.raises(ValueError, match="server URL"):
        hook(Source("token"), server_url)


def sent_by_aiohttp(server_url: str, url: str) -> str | None:
    """The fields that the middleware adds to a request."""
    request: Any = SimpleNamespace(url=URL(url), headers=CIMultiDict[str](), body=None)

    async def answer(_: Any) -> Any:
        return SimpleNamespace(status=200)

    asyncio.run(WalletMiddleware(Source("token"), server_url)(request, answer))
    return request.headers.get("Authorization")


@pytest.mark.parametrize(
    ("server_url", "url"),
    [
        ("https://service.example", "https://service.example:443/"),
        ("https://service.example:443", "https://service.example/"),
        ("https://service.example", "wss://service.example/feed"),
        ("https://service.example:8443", "wss://service.example:8443/feed"),
        ("http://localhost", "ws://localhost:80/feed"),
    ],
)
def test_the_usual_port_need_not_be_written_and_websockets_belong_to_it(server_url: str, url: str) -> None:
    assert sent_by_aiohttp(server_url, url) == "Bearer token"


@pytest.mark.parametrize(
    "url",
    [
        "ws://service.example/",
        "wss://service.example:8443/",
        "wss://other.example/",
        "http://service.example/",
    ],
)
def test_another_scheme_port_or_host_is_another_service(url: str) -> None:
    assert sent_by_aiohttp("https://service.example", url) is None

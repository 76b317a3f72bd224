"""`aiohttp` (3.12 or later) with the wallet's bearer token on every request to one service.

    from tessaline.integrations.aiohttp import WalletMiddleware

    with Keeper(AuthManager(private_key, "https://service.example")) as keeper:
        keeper.start(wait=False)
        middleware = WalletMiddleware(keeper, "https://service.example")
        async with aiohttp.ClientSession(middlewares=[middleware]) as session:
            await session.get("https://service.example/api/orders")

Every request gets the current token from the source, at little cost. Other servers never see it: requests to
them, including redirects, pass through unchanged.

A request waits while the source waits. All requests of an event loop share one waiting thread
(`tessaline.aio`), so the loop is never blocked; aiohttp's `total` time-out includes the wait, and a
cancelled request stops waiting at once. An error of the source passes through `session.get()` unchanged, and
nothing has been sent.

A response with status 401 means that the service refuses a token that seemed valid, most often because a
new era has begun and was not announced yet. The hook reports it to the keeper, which logs in again if that
may help. If there is then a new token, the request is repeated once; otherwise you get the 401. A body that
can be sent only once, such as a generator, is not repeated, nor is a request with `expect100`.
"""

from __future__ import annotations

from aiohttp import ClientHandlerType, ClientRequest, ClientResponse
from aiohttp.hdrs import AUTHORIZATION, EXPECT
from yarl import URL

from tessaline._transport_security import validate_bearer_transport_url
from tessaline.aio import AsyncTokens
from tessaline.integrations._tokens import Header, TokenSource, other_token_of

_SECURED_BY = {"ws": "http", "wss": "https"}


class WalletMiddleware:
    """A client middleware: `middlewares=` of a session or of one request.

    Args:
        tokens: A `Keeper` of one wallet, a wallet of a fleet, an `AuthManager`, or any object with
            `get_token()`. Or an `AsyncTokens` that you share and close.
        server_url: The service; only its origin counts. https, or http to this machine. WebSockets to it
            (wss, ws) belong to it.

    Raises:
        ValueError: `server_url` cannot carry a token, or `tokens` is a keeper of several wallets.

    One serves any number of sessions and event loops.
    """

    def __init__(self, tokens: TokenSource | AsyncTokens, server_url: str) -> None:
        self._tokens = tokens if isinstance(tokens, AsyncTokens) else AsyncTokens(tokens)
        self._origin = _origin(URL(validate_bearer_transport_url(server_url)))
        self._header = Header()

    async def __call__(self, request: ClientRequest, handler: ClientHandlerType) -> ClientResponse:
        # aiohttp calls this for every hop of a redirect.
        if _origin(request.url) != self._origin:
            return await handler(request)
        token = await self._tokens.get_token()
        request.headers[AUTHORIZATION] = self._header.of(token)
        response = await handler(request)
        if response.status != 401:
            return response
        try:
            held = await other_token_of(self._tokens, token)
            header = None if held is None else self._header.of(held)
        except BaseException:
            response.close()
            raise
        # A body that waited for "100 Continue" was not sent; a repeat would send it without that, or not.
        if header is None or EXPECT in request.headers or (request.body and request.body.consumed):
            return response
        response.release()
        request.headers[AUTHORIZATION] = header
        return await handler(request)


def _origin(url: URL) -> tuple[str, str | None, int | None]:
    return _SECURED_BY.get(url.scheme, url.scheme), url.raw_host, url.port


__all__ = ["WalletMiddleware"]

"""`aiohttp` (3.12 or later) with the wallet's bearer token on every request to one service.

    manager = AuthManager(private_key, "https://service.example")
    await asyncio.to_thread(manager.authenticate)
    middleware = WalletMiddleware(manager, "https://service.example")
    async with aiohttp.ClientSession(middlewares=[middleware]) as session:
        await session.get("https://service.example/api/orders")

Every request asks the manager for its token, which costs little and always gives the right one. Other
servers never see it: requests to them, redirects included, pass through untouched. One middleware serves
any number of sessions and event loops.

While the manager renews its token, a request waits for it, in a thread of the event loop's executor, so
that the loop never stands still. The wait counts for aiohttp's `total` time-out, and a request that is
cancelled stops waiting at once. Where the manager has no token to give, its `AuthError` leaves
`session.get()` as it is, and nothing has been sent.

An answer of 401 means that the service refuses a token which the manager holds good, most often because a
new era has begun whose announcement is still on its way. If the manager has got another token meanwhile,
the request is repeated once with that one. Else the 401 is yours: the same token would be refused again,
and announcing the era with `manager.notify_era_change()` is what makes the manager fetch another. A body
that can be sent only once, such as a generator, is not repeated.
"""

from __future__ import annotations

import asyncio

from aiohttp import ClientHandlerType, ClientRequest, ClientResponse
from aiohttp.hdrs import AUTHORIZATION
from yarl import URL

from tessaline.auth import AuthManager


class WalletMiddleware:
    """A client middleware, of a session or of one request."""

    def __init__(self, manager: AuthManager, server_url: str) -> None:
        self._manager = manager
        self._origin = URL(server_url).origin()

    async def __call__(self, request: ClientRequest, handler: ClientHandlerType) -> ClientResponse:
        # aiohttp comes here for every hop of a redirect.
        if request.url.origin() != self._origin:
            return await handler(request)
        token = await self._token()
        request.headers[AUTHORIZATION] = f"Bearer {token}"
        response = await handler(request)
        if response.status != 401 or (request.body and request.body.consumed):
            return response
        held = await self._token()
        if held == token:
            return response
        response.release()
        request.headers[AUTHORIZATION] = f"Bearer {held}"
        return await handler(request)

    async def _token(self) -> str:
        # The thread of a cancelled request goes on by itself: it ends with the renewal, or with close().
        return await asyncio.to_thread(self._manager.get_token)

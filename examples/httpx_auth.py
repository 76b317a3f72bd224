"""`httpx`, sync and async, with the wallet's bearer token on every request to one service.

    manager = AuthManager(private_key, "https://service.example")
    manager.authenticate()  # it waits: in a coroutine, await asyncio.to_thread(manager.authenticate)
    auth = WalletAuth(manager, "https://service.example")
    with httpx.Client(auth=auth) as client: ...
    async with httpx.AsyncClient(auth=auth) as client: ...

Every request asks the manager for its token, which costs next to nothing and always gives the right one.
Other servers never see it: requests to them go out as if there were no `auth`. One `WalletAuth` serves any
number of clients, threads and event loops.

While the manager renews its token, a request waits for it; the wait is not part of httpx's own time-outs.
An `AsyncClient` waits in a worker thread of anyio, so the event loop never stands still, and a request
that is cancelled stops waiting at once. Where the manager has no token to give, its `AuthError` leaves
`client.get()` as it is, and nothing has been sent.

An answer of 401 means that the service refuses a token which the manager holds good, most often because a
new era has begun whose announcement is still on its way. If the manager has got another token meanwhile,
the request is repeated once with that one. Else the 401 is yours: the same token would be refused again,
and announcing the era with `manager.notify_era_change()` is what makes the manager fetch another. A body
that can be sent only once, such as a generator, is not repeated.
"""

from __future__ import annotations

from collections.abc import AsyncGenerator, Generator

import httpx
from anyio import to_thread

from tessaline.auth import AuthManager


class WalletAuth(httpx.Auth):
    """What `httpx` asks for credentials, of a client or of one request."""

    def __init__(self, manager: AuthManager, server_url: str) -> None:
        self._manager = manager
        self._origin = _origin(httpx.URL(server_url))

    def sync_auth_flow(self, request: httpx.Request) -> Generator[httpx.Request, httpx.Response]:
        if _origin(request.url) != self._origin:
            yield request
            return
        response = yield _with_token(request, self._manager.get_token())
        if self._may_be_repeated(request, response):
            held = self._manager.get_token()
            if _differs(request, held):
                yield _with_token(request, held)

    async def async_auth_flow(self, request: httpx.Request) -> AsyncGenerator[httpx.Request, httpx.Response]:
        if _origin(request.url) != self._origin:
            yield request
            return
        response = yield _with_token(request, await self._token())
        if self._may_be_repeated(request, response):
            held = await self._token()
            if _differs(request, held):
                yield _with_token(request, held)

    async def _token(self) -> str:
        # The thread of a cancelled request goes on by itself: it ends with the renewal, or with close().
        return await to_thread.run_sync(self._manager.get_token, abandon_on_cancel=True)

    def _may_be_repeated(self, request: httpx.Request, response: httpx.Response) -> bool:
        # The answer may have come from elsewhere, after a redirect.
        return (
            response.status_code == 401
            and _origin(response.url) == self._origin
            and isinstance(request.stream, httpx.ByteStream)
        )


def _with_token(request: httpx.Request, token: str) -> httpx.Request:
    request.headers["Authorization"] = f"Bearer {token}"
    return request


def _differs(request: httpx.Request, token: str) -> bool:
    return request.headers["Authorization"] != f"Bearer {token}"


def _origin(url: httpx.URL) -> tuple[str, str, int | None]:
    return url.scheme, url.host, url.port

"""`httpx`, sync and async, with the wallet's bearer token on every request to one service.

    from tessaline.integrations.httpx import WalletAuth

    with Keeper(AuthManager(private_key, "https://service.example")) as keeper:
        keeper.start()  # it waits: in a coroutine, start(wait=False)
        auth = WalletAuth(keeper, "https://service.example")
        with httpx.Client(auth=auth) as client: ...
        async with httpx.AsyncClient(auth=auth) as client: ...

Every request gets the current token from the source, at almost no cost. Other servers never see it:
requests to them are sent as if there were no `auth`.

A request waits while the source waits; the time-outs of httpx do not include that. The requests of an
`AsyncClient` share one waiting thread (`tessaline.aio`), so the event loop is never blocked, and a
cancelled request stops waiting at once. An error of the source passes through `client.get()` unchanged, and
nothing has been sent.

A response with status 401 means that the service refuses a token that seemed valid, most often because a
new era has begun and was not announced yet. The hook reports it to the keeper, which logs in again if that
may help. If there is then a new token, the request is repeated once; otherwise you get the 401. A body that
can be sent only once, such as a generator, is not repeated.
"""

from __future__ import annotations

from collections.abc import AsyncGenerator, Generator

import httpx

from tessaline._transport_security import validate_bearer_transport_url
from tessaline.aio import AsyncTokens
from tessaline.integrations._tokens import Header, TokenSource, other_token, other_token_of


class WalletAuth(httpx.Auth):
    """Credentials for `httpx`: `auth=` of a client or of one request.

    Args:
        tokens: A `Keeper` of one wallet, a wallet of a fleet, an `AuthManager`, or any object with
            `get_token()`. Or an `AsyncTokens` that you share and close; it serves an `AsyncClient` only.
        server_url: The service; only its origin counts. https, or http to this machine.

    Raises:
        ValueError: `server_url` cannot carry a token, or `tokens` is a keeper of several wallets.

    One serves any number of clients, threads and event loops.
    """

    def __init__(self, tokens: TokenSource | AsyncTokens, server_url: str) -> None:
        self._source = None if isinstance(tokens, AsyncTokens) else tokens
        self._tokens = tokens if isinstance(tokens, AsyncTokens) else AsyncTokens(tokens)
        self._origin = _origin(httpx.URL(validate_bearer_transport_url(server_url)))
        self._header = Header()

    def sync_auth_flow(self, request: httpx.Request) -> Generator[httpx.Request, httpx.Response]:
        if _origin(request.url) != self._origin:
            yield request
            return
        if self._source is None:
            raise TypeError("an AsyncTokens serves httpx.AsyncClient only: pass its source to WalletAuth")
        token = self._source.get_token()
        response = yield self._with_token(request, token)
        if self._is_refusal(response, token):
            held = other_token(self._source, token)
            if held is not None and _may_be_repeated(request):
                yield self._with_token(request, held)

    async def async_auth_flow(self, request: httpx.Request) -> AsyncGenerator[httpx.Request, httpx.Response]:
        if _origin(request.url) != self._origin:
            yield request
            return
        token = await self._tokens.get_token()
        response = yield self._with_token(request, token)
        if self._is_refusal(response, token):
            held = await other_token_of(self._tokens, token)
            if held is not None and _may_be_repeated(request):
                yield self._with_token(request, held)

    def _with_token(self, request: httpx.Request, token: str) -> httpx.Request:
        request.headers["Authorization"] = self._header.of(token)
        return request

    def _is_refusal(self, response: httpx.Response, token: str) -> bool:
        # After redirects the response may be from another origin, or to a request without the token.
        return (
            response.status_code == 401
            and _origin(response.url) == self._origin
            and response.request.headers.get("Authorization") == self._header.of(token)
        )


def _may_be_repeated(request: httpx.Request) -> bool:
    return isinstance(request.stream, httpx.ByteStream)


def _origin(url: httpx.URL) -> tuple[str, str, int | None]:
    return url.scheme, url.host, url.port


__all__ = ["WalletAuth"]

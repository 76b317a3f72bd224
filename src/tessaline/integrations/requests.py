"""`requests` with the wallet's bearer token on every request to one service.

    from tessaline.integrations.requests import WalletAuth

    with Keeper(AuthManager(private_key, "https://service.example")) as keeper:
        keeper.start()
        session = requests.Session()
        session.auth = WalletAuth(keeper, "https://service.example")
        session.get("https://service.example/api/orders", timeout=30)

Every request gets the current token from the source, at almost no cost. Other servers never see it:
requests to them, including redirects, are sent as if there were no `auth`.

A request waits while the source waits; the `timeout` of requests does not include that. An error of the
source passes through `session.get()` unchanged, and nothing has been sent.

A response with status 401 means that the service refuses a token that seemed valid, most often because a
new era has begun and was not announced yet. The hook reports it to the keeper, which logs in again if that
may help. If there is then a new token, the request is repeated once; otherwise you get the 401. A body that
can be sent only once, such as a file or a generator, is not repeated.
"""

from __future__ import annotations

from typing import Any
from urllib.parse import urlsplit

from requests import PreparedRequest, Response
from requests.auth import AuthBase

from tessaline._ready import of_one_wallet
from tessaline._transport_security import validate_bearer_transport_url
from tessaline.integrations._tokens import Header, TokenSource, other_token

_DEFAULT_PORTS = {"http": 80, "https": 443}
_SCHEME = "Bearer "
_DIGITS_WORTH_READING = 5


class WalletAuth(AuthBase):
    """Credentials for `requests`: `session.auth = WalletAuth(...)`, or `auth=WalletAuth(...)` of one request.

    Args:
        tokens: A `Keeper` of one wallet, a wallet of a fleet, an `AuthManager`, or any object with
            `get_token()`.
        server_url: The service; only its origin counts. https, or http to this machine.

    Raises:
        ValueError: `server_url` cannot carry a token, or `tokens` is a keeper of several wallets.

    One serves any number of sessions and threads.
    """

    def __init__(self, tokens: TokenSource, server_url: str) -> None:
        self._tokens = of_one_wallet(tokens)
        self._origin = _origin(validate_bearer_transport_url(server_url))
        self._header = Header()

    def __call__(self, request: PreparedRequest) -> PreparedRequest:
        if _origin(request.url or "") == self._origin:
            request.headers["Authorization"] = self._header.of(self._tokens.get_token())
            request.register_hook("response", self._repeat_if_refused)
        return request

    def _repeat_if_refused(self, response: Response, **how_it_was_sent: Any) -> Response:
        request = response.request
        sent = str(request.headers.get("Authorization", ""))
        # A redirect to another origin has no token, or has credentials for that origin.
        if (
            response.status_code != 401
            or not sent.startswith(_SCHEME)
            or _origin(response.url) != self._origin
        ):
            return response
        try:
            held = other_token(self._tokens, sent.removeprefix(_SCHEME))
            header = None if held is None else self._header.of(held)
        except BaseException:
            response.close()
            raise
        if header is None or not isinstance(request.body, str | bytes | None):
            return response
        # Reading the whole first response frees its connection, but it may be endless.
        length = str(response.headers.get("Content-Length", ""))
        if length.isdecimal() and len(length) <= _DIGITS_WORTH_READING:
            _ = response.content
        response.close()
        again = request.copy()
        again.headers["Authorization"] = header
        answer: Response = response.connection.send(again, **how_it_was_sent)
        answer.history.append(response)
        answer.request = again
        return answer


def _origin(url: str) -> tuple[str, str | None, int | None]:
    parts = urlsplit(url)
    return parts.scheme, parts.hostname, parts.port or _DEFAULT_PORTS.get(parts.scheme)


__all__ = ["WalletAuth"]

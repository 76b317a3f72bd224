"""`requests` with the wallet's bearer token on every request to one service.

    from tessaline.integrations.requests import WalletAuth

    with Keeper(AuthManager(private_key, "https://service.example")) as keeper:
        keeper.start()
        session = requests.Session()
        session.auth = WalletAuth(keeper, "https://service.example")
        session.get("https://service.example/api/orders", timeout=30)

Every request asks for the token, which costs next to nothing and always gives the right one. Other servers
never see it: requests to them, redirects included, go out as if there were no `auth`.

A request waits where the source of tokens waits; that is not part of requests' own `timeout`. Where there is
no token to give, the source's error leaves `session.get()` as it is, and nothing has been sent.

An answer of 401 means that the service refuses a token which was held good, most often because a new era has
begun whose announcement is still on its way. A keeper is told, and logs in again where that may help; the
request is repeated once if there is another token then. Else the 401 is yours. A body that can be sent only
once, such as a file or a generator, is not repeated.
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
    """What `requests` asks for credentials: of a session, or of one request as `auth=WalletAuth(...)`.

    Args:
        tokens: A `Keeper` of one wallet, a wallet of a fleet, an `AuthManager`, or what else has
            `get_token()`.
        server_url: The service; only its origin counts. https, or http to this machine.

    Raises:
        ValueError: `server_url` is not fit to carry a token, or `tokens` is a keeper of several wallets.

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
        # A redirect to elsewhere has no token any more, or has a password of that place.
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
        # Read to its end, the first answer gives its connection back. It may have no end.
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

"""`requests` with the wallet's bearer token on every request to one service.

    manager = AuthManager(private_key, "https://service.example")
    manager.authenticate()
    session = requests.Session()
    session.auth = WalletAuth(manager, "https://service.example")
    session.get("https://service.example/api/orders", timeout=30)

Every request asks the manager for its token, which costs next to nothing and always gives the right one.
Other servers never see it: requests to them, redirects included, go out as if there were no `auth`. One
`WalletAuth` serves any number of sessions and threads.

While the manager renews its token, a request waits for it; the wait is not part of requests' own
`timeout`. Where the manager has no token to give, its `AuthError` leaves `session.get()` as it is, and
nothing has been sent.

An answer of 401 means that the service refuses a token which the manager holds good, most often because a
new era has begun whose announcement is still on its way. If the manager has got another token meanwhile,
the request is repeated once with that one. Else the 401 is yours: the same token would be refused again,
and announcing the era with `manager.notify_era_change()` is what makes the manager fetch another. A body
that can be sent only once, such as a file or a generator, is not repeated.
"""

from __future__ import annotations

from typing import Any
from urllib.parse import urlsplit

from requests import PreparedRequest, Response
from requests.auth import AuthBase

from tessaline.auth import AuthManager

_DEFAULT_PORTS = {"http": 80, "https": 443}


class WalletAuth(AuthBase):
    """What `requests` asks for credentials: `requests.get(url, auth=WalletAuth(manager, server_url))`."""

    def __init__(self, manager: AuthManager, server_url: str) -> None:
        self._manager = manager
        self._origin = _origin(server_url)

    def __call__(self, request: PreparedRequest) -> PreparedRequest:
        if _origin(request.url or "") == self._origin:
            request.headers["Authorization"] = f"Bearer {self._manager.get_token()}"
            request.register_hook("response", self._repeat_if_renewed)
        return request

    def _repeat_if_renewed(self, response: Response, **how_it_was_sent: Any) -> Response:
        request = response.request
        refused = request.headers.get("Authorization")
        # A redirect to elsewhere has no token any more.
        if response.status_code != 401 or refused is None or _origin(response.url) != self._origin:
            return response
        held = f"Bearer {self._manager.get_token()}"
        if held == refused or not isinstance(request.body, str | bytes | None):
            return response
        # Read to its end, the first answer gives its connection back.
        _ = response.content
        response.close()
        again = request.copy()
        again.headers["Authorization"] = held
        answer: Response = response.connection.send(again, **how_it_was_sent)
        answer.history.append(response)
        answer.request = again
        return answer


def _origin(url: str) -> tuple[str, str | None, int | None]:
    parts = urlsplit(url)
    return parts.scheme, parts.hostname, parts.port or _DEFAULT_PORTS.get(parts.scheme)

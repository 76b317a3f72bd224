"""How a request reaches a proxy, and what its error reports about that."""

from __future__ import annotations

from collections.abc import Callable

type SetEnv = Callable[[str, str], None]

USER = "somebody-of-the-proxy"
PASSWORD = "s3cret-of-the-proxy"

# Never contacted: the proxy responds itself.
SERVER = "127.0.0.2:9"


def secretly(url: str) -> str:
    """The URL of a proxy, with credentials."""
    scheme, _, peer = url.partition("://")
    return f"{scheme}://{USER}:{PASSWORD}@{peer}"


def by_proxy(variable: str) -> str:
    """The note about the variable that names the proxy."""
    return (
        f"the environment variable {variable} names a proxy, "
        "which the request went through unless no_proxy exempts the host"
    )

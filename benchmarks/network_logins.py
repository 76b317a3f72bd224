"""A login, prepared for a base URL, by each client that the network benchmarks compare."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from dataclasses import dataclass
from functools import partial
from typing import Any

from .network_getters import BARE_SHARING, root_store, trusting_context

Call = Callable[[], object]
Prepare = Callable[[str], Call]

IN_MEMORY = "tessaline in memory"

MODULES = {
    "tessaline": "tessaline.auth",
    IN_MEMORY: "tessaline.auth",
    "urllib3": "urllib3",
    BARE_SHARING: "floors",
}


@dataclass(frozen=True)
class Errand:
    """A login for each base URL, after a warm-up; requests and responses are prepared in memory."""

    bases: Sequence[str]
    warm_up: str
    key: str
    paths: Sequence[str]
    bodies: Sequence[str]
    challenge: str
    verified: str


def by_tessaline(errand: Errand) -> Prepare:
    from tessaline import auth

    # The bound method keeps the manager alive.
    return lambda base: auth.AuthManager(errand.key, base).authenticate


def in_memory(errand: Errand) -> Prepare:
    from tessaline import auth

    challenge, verified = errand.challenge.encode(), errand.verified.encode()
    verify = errand.paths[-1]
    nothing: dict[str, str] = {}

    def transport(method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        return 200, nothing, verified if url.endswith(verify) else challenge

    return lambda base: auth.AuthManager(errand.key, base, _transport=transport).authenticate


def by_urllib3(errand: Errand) -> Prepare:
    """One pool with the defaults, but as large as the number of origins and threads requires."""
    import urllib3

    origins = {base.split("/")[2] for base in errand.bases}
    pool = urllib3.PoolManager(
        num_pools=len(origins) + 1,
        maxsize=len(errand.bases) // len(origins),
        block=False,
        ssl_context=trusting_context(),
    )
    headers = {"Content-Type": "application/json"}

    def log_in(base: str) -> None:
        for path, body in zip(errand.paths, errand.bodies, strict=True):
            response = pool.request("POST", base + path, body=body, headers=headers, timeout=30)
            assert response.status == 200

    return lambda base: partial(log_in, base)


def by_libcurl(errand: Errand) -> Prepare:
    import floors

    roots = root_store()
    bodies = tuple(errand.bodies)

    def prepare(base: str) -> Call:
        urls = tuple(base + path for path in errand.paths)
        return lambda: floors.bare_login(urls, bodies, roots)

    return prepare


LOGINS: dict[str, Callable[[Errand], Prepare]] = {
    "tessaline": by_tessaline,
    IN_MEMORY: in_memory,
    "urllib3": by_urllib3,
    BARE_SHARING: by_libcurl,
}

"""A transport for `eventlet`: a request does not block the other green threads.

    from tessaline.integrations import eventlet as wallet_eventlet

    manager = AuthManager(key, "https://service.example", _transport=wallet_eventlet.transport())

The default transport waits inside libcurl and blocks all green threads. This one makes the request on a
native thread of `eventlet.tpool`, while the hub keeps running.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import TYPE_CHECKING, Any

from eventlet import hubs, tpool  # pyright: ignore[reportMissingTypeStubs]

from tessaline import http
from tessaline.integrations._off_hub import OffHub

if TYPE_CHECKING:
    from tessaline.auth import HttpTransport

__all__ = ["transport"]

_hubs: Any = hubs
_tpool: Any = tpool


def transport(inner: HttpTransport | None = None) -> HttpTransport:
    """Create a transport for `AuthManager(..., _transport=...)` that does not block the hub.

    Any number of managers may share it. The number of concurrent requests is that of the threads of
    `eventlet.tpool`: 20, or `EVENTLET_THREADPOOL_SIZE`. A green thread that is killed or times out stops
    waiting at once; its request continues in the pool and its response is dropped, but the end of the
    program waits for it.

    Args:
        inner: The transport that makes the requests, on a thread of the pool; it must not use eventlet.
            None: a `tessaline.http.transport()`. Pass your own to change its settings; its `on_exchange`
            runs on that thread too.

    Returns:
        A callable with the parameters `method`, `url`, `headers=None`, `body=None`. Errors of `inner` pass
        through unchanged. It makes the request in place on a thread without a hub, and where the pool
        serves another hub or is that of a forked child's parent: so let a program that forks make its first
        request in the child.

    Raises:
        TypeError: `inner` is not callable.
    """
    return OffHub(http.transport() if inner is None else inner, _run, f"{__name__}.transport")


def _run(call: Callable[..., Any], *arguments: Any) -> Any:
    return _tpool.execute(call, *arguments) if _is_served() else call(*arguments)


def _is_served() -> bool:
    """Whether the pool responds here: it serves the hub that used it first, in that process."""
    hub = getattr(_hubs._threadlocal, "hub", None)
    if hub is None:
        return False
    if not _tpool._setup_already:
        return True
    above = _tpool._coro
    # A hub ended by an exception continues in another greenlet, which becomes a parent of the ended one.
    while above is not None and above is not hub.greenlet:
        above = above.parent
    return above is not None and any(thread.is_alive() for thread in _tpool._threads)

"""A transport for `gevent`: a request does not block the other greenlets.

    from tessaline.integrations import gevent as wallet_gevent

    manager = AuthManager(key, "https://service.example", _transport=wallet_gevent.transport())

The default transport waits inside libcurl and blocks all greenlets of the thread. This one makes the request
on a native thread of gevent's pool, while the hub keeps running.
"""

from __future__ import annotations

import os
from collections.abc import Callable
from typing import TYPE_CHECKING, Any

from gevent._hub_local import get_hub_if_exists

from tessaline import http
from tessaline.integrations._off_hub import OffHub

if TYPE_CHECKING:
    from gevent.threadpool import ThreadPool

    from tessaline.auth import HttpTransport

__all__ = ["transport"]


def transport(inner: HttpTransport | None = None, *, pool: ThreadPool | None = None) -> HttpTransport:
    """Create a transport for `AuthManager(..., _transport=...)` that does not block the hub.

    Any number of managers may share it. A greenlet that is killed or times out stops waiting at once; its
    request continues in the pool, and its response is dropped.

    Args:
        inner: The transport that makes the requests, on a thread of the pool; it must not use gevent. None:
            a `tessaline.http.transport()`. Pass your own to change its settings; its `on_exchange` runs on
            that thread too.
        pool: A thread pool of the thread's hub; its size limits concurrent requests. None: the hub's own
            pool of 10 threads, in which gevent also resolves names.

    Returns:
        A callable with the parameters `method`, `url`, `headers=None`, `body=None`. Errors of `inner` pass
        through unchanged. It makes the request in place on a thread that has no hub, or not that of `pool`,
        and in a forked child whose gevent does not know of the fork: patch `os.fork`, or call
        `gevent.reinit()`.

    Raises:
        TypeError: `inner` is not callable.
    """

    def run(call: Callable[..., Any], *arguments: Any) -> Any:
        hub = get_hub_if_exists()
        # Without a hub there are no greenlets, and accessing the pool would create a hub.
        if hub is None:
            return call(*arguments)
        threads = hub.threadpool if pool is None else pool
        # Its threads are in the parent, so it would never respond.
        if threads.size > 0 and threads.pid != os.getpid():
            return call(*arguments)
        return threads.apply(call, arguments)

    return OffHub(http.transport() if inner is None else inner, run, f"{__name__}.transport")

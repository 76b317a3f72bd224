"""A transport for `gevent`: a request lets the other greenlets run.

    from tessaline.integrations import gevent as wallet_gevent

    manager = AuthManager(key, "https://service.example", _transport=wallet_gevent.transport())

The default transport waits inside libcurl, and all greenlets of the thread with it. This one has a native
thread of gevent's pool make the request, while the hub goes on.
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
    """Make a transport for `AuthManager(..., _transport=...)` that does not hold up the hub.

    Any number of managers may share it. A greenlet that is killed or timed out stops waiting at once; its
    request goes on in the pool until it ends, and nobody learns what came of it.

    Args:
        inner: What makes the requests, on a thread of the pool; it may not use gevent. None: a
            `tessaline.http.transport()`. Pass one with settings of your own, whose `on_exchange` runs on
            that thread as well.
        pool: A pool of the thread's hub, whose size bounds the requests at one time; the others wait. None:
            the hub's own, of 10 threads, in which gevent also looks names up.

    Returns:
        A callable with the parameters `method`, `url`, `headers=None`, `body=None`. What `inner` raises comes
        out unchanged. It makes the request in place on a thread that has no hub, or not that of `pool`, and
        in a forked child whose gevent does not know of the fork: patch `os.fork`, or call `gevent.reinit()`.

    Raises:
        TypeError: `inner` is not callable.
    """

    def run(call: Callable[..., Any], *arguments: Any) -> Any:
        hub = get_hub_if_exists()
        # Without a hub there are no greenlets, and asking for its pool would make one.
        if hub is None:
            return call(*arguments)
        threads = hub.threadpool if pool is None else pool
        # They are the parent's, and would never answer.
        if threads.size > 0 and threads.pid != os.getpid():
            return call(*arguments)
        return threads.apply(call, arguments)

    return OffHub(http.transport() if inner is None else inner, run, f"{__name__}.transport")

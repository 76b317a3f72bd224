"""What the component can be busy with on the main thread when a signal handler ends the program.

Each schedules a SIGTERM for that time, and then does it. Callbacks that end the program are here, too.
"""

from __future__ import annotations

import os
import signal
import sys
import threading
import time
from collections.abc import Callable
from typing import Any

from .surroundings import (
    CONFIG,
    Busy,
    Clock,
    daemon,
    logged_in,
    manager_of,
    print_time,
    refusing_url,
    silent_url,
    until,
)


def terminate_when(ready: Callable[[], object]) -> None:
    def wait_and_terminate() -> None:
        ready()
        os.kill(os.getpid(), signal.SIGTERM)
        # A sanitizer keeps one back that comes just before a wait, until it ends or there is another.
        while "TESSALINE_SANITIZER" in os.environ:
            time.sleep(1)
            os.kill(os.getpid(), signal.SIGTERM)

    daemon(wait_and_terminate)


def login_in_http_request() -> None:
    url, wait = silent_url()
    terminate_when(wait)
    manager_of(url).authenticate()


def login_in_tls_handshake() -> None:
    url, wait = silent_url("https")
    terminate_when(wait)
    manager_of(url).authenticate()


def login_in_busy_transport() -> None:
    busy = Busy()
    terminate_when(busy.wait)
    manager_of(CONFIG["http"], transport=busy).authenticate()


def login_in_back_off() -> None:
    manager = manager_of(refusing_url())
    terminate_when(lambda: until(lambda: manager._in_transient_backoff))
    manager.authenticate()


def login_that_waits_for_another() -> None:
    url, wait = silent_url()
    manager = manager_of(url)
    daemon(manager.authenticate)
    wait()
    event = manager._auth_event
    terminate_when(lambda: until(lambda: event._cond._waiters))
    manager.authenticate()


def token_that_is_waited_for() -> None:
    manager = logged_in()
    manager._server_url, wait = silent_url()
    manager.notify_era_change(2)
    wait()
    event = manager._auth_event
    terminate_when(lambda: until(lambda: event._cond._waiters))
    manager.get_token()


def rename_in_http_request() -> None:
    manager = logged_in()
    manager._server_url, wait = silent_url()
    terminate_when(wait)
    manager.set_display_name("Ada")


def close_that_waits_for_the_refresh_thread() -> None:
    manager = logged_in()
    refresh = manager._refresh_thread

    class Slow(threading.Thread):
        def join(self, timeout: float | None = None) -> None:
            os.kill(os.getpid(), signal.SIGTERM)
            refresh.join(timeout)

    manager._refresh_thread = Slow()
    manager.close()


def transport_that_exits() -> None:
    def transport(*_args: Any, **_options: Any) -> Any:
        print_time()
        sys.exit(0)

    manager_of(CONFIG["http"], transport=transport).authenticate()


def clock_that_exits() -> None:
    clock = Clock()
    manager = logged_in(clock=clock)

    def leave() -> float:
        if threading.current_thread() is not threading.main_thread():
            return clock()
        print_time()
        sys.exit(0)

    manager._clock = leave
    manager.get_token()


SCENARIOS = {
    name: value
    for name, value in list(globals().items())
    if callable(value)
    and getattr(value, "__module__", None) == __name__
    and not isinstance(value, type)
    and name != terminate_when.__name__
}

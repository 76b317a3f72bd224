"""The environment of flows: the development server over both schemes, and the component's access to time."""

from __future__ import annotations

import contextlib
import os
import random
import socket
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager
from typing import Any, Self

from devserver.testing import DevServer
from tessaline import auth
from tests.shared.modules import StandIn

PATIENT_SECONDS = 30.0
STALL_SECONDS = 0.75
START_SECONDS = 120.0
ERA = 5


class Seams:
    """Replaces process-wide functions of the component, by thread: sleep, jitter, time-out and logging.

    sleep: called on a thread instead of `time.sleep`, if set.
    """

    def __init__(self) -> None:
        self._local = threading.local()
        self.jitter = 0.0
        self.logged = 0

    def sleep_by(self, sleep: Callable[[float], None] | None) -> None:
        self._local.sleep = sleep

    def time_out_after(self, seconds: float) -> None:
        self._local.seconds = seconds

    def sleep(self, seconds: float) -> None:
        (getattr(self._local, "sleep", None) or time.sleep)(seconds)

    def timeout(self) -> float:
        return getattr(self._local, "seconds", PATIENT_SECONDS)

    def uniform(self, _low: float, _high: float) -> float:
        return self.jitter

    def log(self, *_args: Any, **_kwargs: Any) -> None:
        self.logged += 1

    @contextlib.contextmanager
    def installed(self) -> Iterator[Self]:
        replaced = {
            "_time": StandIn(time, sleep=self.sleep),
            "random": StandIn(random, uniform=self.uniform),
            "_auth_http_timeout_seconds": self.timeout,
            "log_library_surface_event": self.log,
        }
        before = {name: getattr(auth, name) for name in replaced}
        try:
            for name, value in replaced.items():
                setattr(auth, name, value)
            yield self
        finally:
            for name, value in before.items():
                setattr(auth, name, value)


class Stage(AbstractContextManager["Stage"]):
    """The servers by scheme, a port where nothing listens, and the replaced functions, for one process."""

    def __init__(self) -> None:
        self._stack = contextlib.ExitStack()

    def __enter__(self) -> Self:
        with contextlib.ExitStack() as stack:
            self.servers = {
                scheme: stack.enter_context(
                    DevServer(
                        tls=scheme == "https",
                        gate=True,
                        era=ERA,
                        keep_control=True,
                        start_timeout=START_SECONDS,
                    )
                )
                for scheme in ("http", "https")
            }
            stack.enter_context(_environment("SSL_CERT_FILE", self.servers["https"].ca_file))
            taken = stack.enter_context(socket.socket())
            taken.bind(("127.0.0.1", 0))
            self.refused_port = taken.getsockname()[1]
            self.seams = stack.enter_context(Seams().installed())
            self._stack = stack.pop_all()
        return self

    def __exit__(self, *_details: object) -> None:
        self._stack.close()

    @property
    def said(self) -> str:
        """What the servers wrote to standard error, which should be nothing."""
        return "".join(server.stderr for server in self.servers.values())


@contextlib.contextmanager
def _environment(name: str, value: str | None) -> Iterator[None]:
    assert value is not None
    before = os.environ.get(name)
    os.environ[name] = value
    try:
        yield
    finally:
        if before is None:
            del os.environ[name]
        else:
            os.environ[name] = before

"""The build of the benchmarks, and its parts: the component, the floors, the server."""

from __future__ import annotations

import json
import os
import ssl
import subprocess
import sys
import urllib.request
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "benchmarks"
PROGRAMS = BUILD / "benchmarks"
PACKAGE = BUILD / "package"

KEY = "4c0883a69102937d6231471b5dbb6204fe5129617082792ae468d01a3f362318"
REGISTER, CHALLENGE, VERIFY = "/auth/register", "/auth/challenge", "/auth/verify"


def use_build() -> None:
    """Makes `tessaline.auth` of the benchmarks' own build, and `floors`, importable."""
    for folder in (PROGRAMS, PACKAGE):
        if str(folder) not in sys.path:
            sys.path.insert(0, str(folder))


@dataclass(frozen=True)
class Server:
    """A running `bench_server`."""

    base: str

    def _ask(self, request: urllib.request.Request) -> bytes:
        # A new context: the URL library would keep the first one, with the roots of that time.
        context = ssl.create_default_context() if self.base.startswith("https:") else None
        with urllib.request.urlopen(request, timeout=30, context=context) as response:
            return bytes(response.read())

    def count(self) -> tuple[int, int]:
        """Connections accepted and exchanges completed so far, without the exchange of this request."""
        counted = json.loads(self._ask(urllib.request.Request(self.base + "/count")))
        return counted["connections"], counted["exchanges"]

    def begin_era(self, era: int) -> None:
        self._ask(urllib.request.Request(f"{self.base}/era/{era}", data=b"", method="POST"))


@contextmanager
def on_one_core() -> Iterator[None]:
    """Keeps this process, and those that it starts meanwhile, on one core.

    A client and a server that alternate need one at a time. On two cores each exchange would wake the other
    core, which costs more in a virtual machine than the exchange itself.
    """
    before = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {min(before)})
    try:
        yield
    finally:
        os.sched_setaffinity(0, before)


@contextmanager
def running_server(
    delay_milliseconds: int = 0, certificate: tuple[Path, Path] | None = None
) -> Iterator[Server]:
    """A server that responds after that delay; over TLS with that certificate and key."""
    command = [str(PROGRAMS / "bench_server"), str(delay_milliseconds), *map(str, certificate or ())]
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:
        assert process.stdin is not None and process.stdout is not None
        port = int(process.stdout.readline())
        try:
            yield Server(f"{'https' if certificate else 'http'}://127.0.0.1:{port}")
        finally:
            process.stdin.close()
            process.wait(timeout=30)

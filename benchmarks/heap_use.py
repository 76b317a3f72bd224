"""Prints the bytes of heap per object, for 1,000 logged-in managers or for their Python objects alone.

    PYTHONMALLOC=malloc python -m benchmarks.heap_use (manager | host)

For managers the second line is how much longer the last hundred logins took than the first. Run it in a
separate process, with every allocation from malloc, so that it is counted.
"""

import ctypes
import gc
import json
import statistics
import sys
import threading
import time
from collections.abc import Callable
from typing import Any

from .places import VERIFY, use_build

use_build()

FLEET = 1000
WARM_UP = 20

_USAGE_FIELDS = [
    *("arena", "ordblks", "smblks", "hblks", "hblkhd"),
    *("usmblks", "fsmblks", "uordblks", "fordblks", "keepcost"),
]


class _Usage(ctypes.Structure):
    """glibc's struct mallinfo2."""

    _fields_ = [(name, ctypes.c_size_t) for name in _USAGE_FIELDS]


def heap() -> int:
    gc.collect()
    read = ctypes.CDLL(None).mallinfo2
    read.restype = _Usage
    usage = read()
    return usage.uordblks + usage.hblkhd


class HostObjects:
    """The lock, events and waiting thread that any class with that contract has."""

    def __init__(self) -> None:
        self.lock = threading.Lock()
        self.events = [threading.Event() for _ in range(6)]
        self.thread = threading.Thread(target=self.wait, daemon=True)
        self.thread.start()

    def wait(self) -> None:
        self.events[0].wait(3600)


class Fleet:
    """Logs managers in over a transport in memory."""

    def __init__(self) -> None:
        self.seconds: list[float] = []
        self._wallet = ""

    def transport(self, method: str, url: str, headers: Any = None, body: Any = None) -> Any:
        import jwt

        if not url.endswith(VERIFY):
            return 200, {}, b'{"challenge_id": "c", "message": "Sign in to the benchmark"}'
        token = jwt.encode({"sub": self._wallet}, "x" * 32)
        return 200, {}, json.dumps({"token": token, "expires_at": 0, "wallet_secret": "c2VjcmV0"}).encode()

    def log_in(self, number: int) -> Any:
        from tessaline import auth

        manager = auth.AuthManager(
            f"{number + 1:064x}", "https://auth.example.test", _transport=self.transport
        )
        self._wallet = manager.get_wallet_address()
        begin = time.perf_counter()
        manager.authenticate()
        self.seconds.append(time.perf_counter() - begin)
        return manager


def bytes_each(make: Callable[[int], Any]) -> float:
    kept = [make(number) for number in range(WARM_UP)]
    before = heap()
    kept += [make(WARM_UP + number) for number in range(FLEET)]
    return (heap() - before) / FLEET


def main() -> None:
    if sys.argv[1] == "host":
        print(bytes_each(lambda _: HostObjects()))
        return
    fleet = Fleet()
    print(bytes_each(fleet.log_in))
    print(statistics.median(fleet.seconds[-100:]) / statistics.median(fleet.seconds[WARM_UP : WARM_UP + 100]))


if __name__ == "__main__":
    main()

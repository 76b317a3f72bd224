"""The counts after each repetition.

Readings are stored in a preallocated array, because the hunt's own data must not count as growth.
"""

from __future__ import annotations

import ctypes
import os
import sys
import threading
import time
from array import array
from collections.abc import Callable, Iterator

from tessaline import auth
from tests.shared.threads import native_threads

from . import caches
from .secret_slots import SecretPages

# The system lists a joined thread for a moment longer, and a peer's closing takes one, too. A test that needs
# more gets half the wait the next time.
GRACE_SECONDS = 0.5
TIGHTEST_CHUNK = 16
BLOCKS = 0  # its column


class _MallInfo(ctypes.Structure):
    """glibc's `struct mallinfo2`."""

    _fields_ = tuple(
        (name, ctypes.c_size_t)
        for name in (
            "arena",
            "ordblks",
            "smblks",
            "hblks",
            "hblkhd",
            "usmblks",
            "fsmblks",
            "uordblks",
            "fordblks",
            "keepcost",
        )
    )


_mallinfo = ctypes.CDLL(None).mallinfo2
_mallinfo.restype = _MallInfo
_mallinfo.argtypes = ()


def native_bytes() -> int:
    info = _mallinfo()
    return int(info.uordblks + info.hblkhd)


class Remembered:
    """Counts what the libraries below cache by design, each at most `BYTES`.

    libcurl keeps every address to which it has connected for a minute, and each server that a test
    starts has a new one. glibc keeps every text that was ever put into the environment.
    """

    BYTES = 400

    def __init__(self) -> None:
        self.count = 0
        # Whether a text was seen, by its hash: keeping the texts themselves would be growth.
        self._seen = bytearray(1 << 20)
        sys.addaudithook(self._see)

    def _see(self, event: str, arguments: tuple[object, ...]) -> None:
        if event == "socket.bind":
            self.count += 1
        elif event == "os.putenv":
            place = hash(arguments) % len(self._seen)
            self.count += not self._seen[place]
            self._seen[place] = 1


def memory_blocks() -> int:
    # Immortal interned texts belong to the interpreter.
    return sys.getallocatedblocks() - sys.getunicodeinternedsize(_only_immortal=True)


def threads() -> int:
    return len(threading.enumerate())


def descriptors() -> int:
    return len(os.listdir("/proc/self/fd"))


def _references_to(thing: object) -> Callable[[], int]:
    return lambda: sys.getrefcount(thing)


class Gauge:
    """A name, a way to count, and the least that one leak adds."""

    def __init__(self, name: str, count: Callable[[], int], least: int = 1) -> None:
        self.name = name
        self.count = count
        self.least = least


def _references() -> Iterator[Gauge]:
    seen: set[int] = set()
    for name, thing in sorted(vars(auth).items()):
        if id(thing) not in seen and not isinstance(thing, int | float | str | bytes):
            seen.add(id(thing))
            yield Gauge(f"references to {name}", _references_to(thing))


class Gauges:
    def __init__(self) -> None:
        self._grace = GRACE_SECONDS
        self._remembered = Remembered()
        self._settling = [
            Gauge("threads", threads),
            Gauge("native threads", native_threads),
            Gauge("descriptors", descriptors),
        ]
        self.all = [
            # First: what the others allocate is freed again, but not while they count.
            Gauge("memory blocks", memory_blocks),
            Gauge("native bytes", self._unexplained_bytes, TIGHTEST_CHUNK),
            Gauge("secret slots", SecretPages().in_use),
            Gauge("references to the module", _references_to(auth)),
            *_references(),
            *self._settling,
        ]

    def read(self, row: array[int], before: array[int] | None) -> None:
        """Count everything into `row`, after short-lived things have ended. The first has no `before`."""
        if before is None:
            self._grace = GRACE_SECONDS
        else:
            self._settle(before)
        caches.clear()
        for column, gauge in enumerate(self.all):
            row[column] = gauge.count()

    def _unexplained_bytes(self) -> int:
        return native_bytes() - Remembered.BYTES * self._remembered.count

    def _settle(self, before: array[int]) -> None:
        limit = time.monotonic() + self._grace
        first = len(self.all) - len(self._settling)
        while any(gauge.count() > before[first + index] for index, gauge in enumerate(self._settling)):
            if time.monotonic() > limit:
                self._grace /= 2
                return
            time.sleep(0.002)

"""How many slots of secret memory are in use, read from the pages themselves.

A page is 64 slots of 64 bytes. The first one holds a word with a bit for each slot that is free.
"""

from __future__ import annotations

import ctypes
from collections.abc import Iterator

from tessaline import auth

PAGE = 4096
SLOTS = 63


class SecretPages:
    """Finds the pages by their properties: anonymous, writable and excluded from core dumps."""

    def __init__(self) -> None:
        # The first key allocates the first page; another is added only when no page has a free slot.
        auth.AuthManager("1" * 64, "https://auth.example.test").close()
        self._words: list[ctypes.c_uint64] = []
        self._find()
        assert self._words

    def in_use(self) -> int:
        count = self._count()
        if count == SLOTS * len(self._words):
            self._find()
            count = self._count()
        return count

    def _count(self) -> int:
        return sum(SLOTS - word.value.bit_count() for word in self._words)

    def _find(self) -> None:
        self._words = [ctypes.c_uint64.from_address(page) for page in _secret_pages()]


def _secret_pages() -> Iterator[int]:
    begin = end = 0
    anonymous = False
    with open("/proc/self/smaps") as maps:
        for line in maps:
            first, *rest = line.split()
            if first == "VmFlags:":
                if anonymous and "dd" in rest:
                    yield from (page for page in range(begin, end, PAGE) if _is_secret(page))
            elif not first.endswith(":"):
                begin, end = (int(part, 16) for part in first.split("-"))
                anonymous = rest[0] == "rw-p" and len(rest) == 4


def _is_secret(page: int) -> bool:
    free = ctypes.c_uint64.from_address(page).value
    return free & 1 == 0

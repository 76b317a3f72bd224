"""What a sanitizer changes for tests; `make sanitize` sets TESSALINE_SANITIZER to the active one.

TESSALINE_SLOWER: how much slower programs run under an emulator.
"""

from __future__ import annotations

import os

import pytest

SANITIZER = os.environ.get("TESSALINE_SANITIZER")
SLOWER = float(os.environ.get("TESSALINE_SLOWER", "6" if SANITIZER else "1"))
EMULATED = SANITIZER is None and SLOWER > 1


def patience(seconds: float) -> float:
    """A time limit that applies as it is in a normal build, and is longer under a sanitizer."""
    return seconds * SLOWER


searches_all_memory = pytest.mark.skipif(
    SANITIZER is not None, reason="a sanitizer maps terabytes, and keeps blocks that were freed"
)

moves_stacks = pytest.mark.skipif(
    SANITIZER == "address",
    reason="takes a library that copies stacks for a fault",
)

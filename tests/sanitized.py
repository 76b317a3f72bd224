"""What a sanitizer changes for tests; `make sanitize` names the one at work in TESSALINE_SANITIZER."""

from __future__ import annotations

import os

import pytest

SANITIZER = os.environ.get("TESSALINE_SANITIZER")
SLOWER = 6.0


def patience(seconds: float) -> float:
    """A bound on time that holds as it stands without a sanitizer, and for slower code with one."""
    return seconds * SLOWER if SANITIZER else seconds


searches_all_memory = pytest.mark.skipif(
    SANITIZER is not None, reason="a sanitizer maps terabytes, and keeps blocks that were freed"
)

moves_stacks = pytest.mark.skipif(
    SANITIZER == "address",
    reason="takes a library that copies stacks for a fault",
)

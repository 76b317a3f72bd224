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

# Where a library moves the stack of its threads, the frames that the sanitizer keeps elsewhere stay behind.
_IN_PLACE = "detect_stack_use_after_return=0"
WITH_GREENLETS = {"ASAN_OPTIONS": f"{os.environ.get('ASAN_OPTIONS', '')}:{_IN_PLACE}"} if SANITIZER else {}

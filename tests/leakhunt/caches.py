"""Clears the caches of the interpreter and the standard library, as CPython's own leak hunt does."""

from __future__ import annotations

import gc
import sys
from types import ModuleType


def _loaded(name: str) -> ModuleType | None:
    return sys.modules.get(name)


def clear() -> None:
    for module in list(sys.modules.values()):
        if hasattr(module, "__warningregistry__"):
            del module.__warningregistry__  # pyright: ignore[reportAttributeAccessIssue]
    # An error that a test raised is kept for a debugger.
    for name in ("last_exc", "last_type", "last_value", "last_traceback"):
        if hasattr(sys, name):
            delattr(sys, name)
    for name, function in (
        ("re", "purge"),
        ("linecache", "clearcache"),
        ("urllib.parse", "clear_cache"),
        ("struct", "_clearcache"),
    ):
        if (module := _loaded(name)) is not None:
            getattr(module, function)()
    if (typing := _loaded("typing")) is not None:
        for cleanup in typing._cleanups:
            cleanup()
    sys._clear_internal_caches()
    # Three times: a finalizer may free what was reachable only from its object.
    for _ in range(3):
        gc.collect()

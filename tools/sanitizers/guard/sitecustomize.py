"""Run by every interpreter under `make sanitize`: only the instrumented component may be imported."""

from __future__ import annotations

import os
import sys
from collections.abc import Sequence
from importlib.machinery import ModuleSpec, PathFinder
from types import ModuleType

# The package's folder in the sanitizer's build tree, and a file for what each process imported.
PACKAGE = os.path.realpath(os.environ["TESSALINE_INSTRUMENTED"])
LOG = os.environ["TESSALINE_INSTRUMENTED_LOG"]

REFUSED = 97


def is_instrumented(file: str | None) -> bool:
    return file is not None and os.path.dirname(os.path.realpath(file)) == os.path.join(PACKAGE, "tessaline")


class OnlyInstrumented:
    """Finds `tessaline.auth` in the usual way, and ends the process if it is not the instrumented one."""

    @staticmethod
    def find_spec(
        name: str, path: Sequence[str] | None = None, target: ModuleType | None = None
    ) -> ModuleSpec | None:
        if name != "tessaline.auth":
            return None
        found = PathFinder.find_spec(name, path, target)
        file = found.origin if found is not None else None
        fits = is_instrumented(file)
        with open(LOG, "a") as log:
            log.write(f"{os.getpid()} {'imports' if fits else 'refused'} {file}\n")
        if not fits:
            # A test might expect an exception.
            os._exit(REFUSED)
        return found


sys.meta_path.insert(0, OnlyInstrumented)

"""Runs a command where there is nothing of what the package was built with, nor the package as it was built.

    unshare --mount python -m tools.wheels.hidden WHEEL [--runtime] COMMAND...

With --runtime the C++ runtime is hidden too, which packages that the tests use may need.

In a mount namespace of its own, so that the system notices nothing.
"""

from __future__ import annotations

import ctypes
import os
import re
import subprocess
import sys
import zipfile
from pathlib import Path

from .opened_libraries import is_of_the_interpreter

DEVELOPMENT = ["/usr/include", "/usr/local/include", "/usr/share/pkgconfig"]
BUILT = ["build/release", "build/portable", "build/wheels", ".venv"]
LINKED = ["libcurl.so.4", "libsecp256k1.so.1"]
RUNTIME = "libstdc++"
GRAFTED = re.compile(r"tessaline\.libs/(.+?)-[0-9a-f]{8}[.\d]*\.so")


def grafted_names(wheel: Path) -> set[str]:
    """As in `libcurl`, which any version of it begins with."""
    with zipfile.ZipFile(wheel) as archive:
        return {match[1] for name in archive.namelist() if (match := GRAFTED.match(name))}


def system_libraries() -> list[Path]:
    listed = subprocess.run(["/sbin/ldconfig", "-p"], check=True, capture_output=True, text=True, timeout=60)
    return [Path(path) for path in re.findall(r" => (/\S+)$", listed.stdout, re.MULTILINE)]


def libraries(names: set[str]) -> set[Path]:
    candidates = {path for path in system_libraries() if path.name.split(".")[0] in names}
    return {path.resolve() for path in candidates if not is_of_the_interpreter(path.name)}


def mount(*arguments: str) -> None:
    subprocess.run(["mount", *arguments], check=True, timeout=60)


def hide(names: set[str]) -> int:
    hidden = libraries(names)
    for path in hidden:
        mount("--bind", "/dev/null", str(path))
    folders = [Path(name) for name in DEVELOPMENT + BUILT]
    folders += {path.parent / "pkgconfig" for path in hidden}
    for folder in folders:
        if folder.is_dir():
            mount("-t", "tmpfs", "hidden", str(folder.resolve()))
    return len(hidden)


def is_found(library: str) -> bool:
    try:
        ctypes.CDLL(library)
    except OSError:
        return False
    return True


if __name__ == "__main__":
    wheel, *command = sys.argv[1:]
    names, linked = grafted_names(Path(wheel)), list(LINKED)
    if command[0] == "--runtime":
        del command[0]
        names.add(RUNTIME)
        linked.append(f"{RUNTIME}.so.6")
    hidden = hide(names)
    if found := [name for name in linked if is_found(name)]:
        sys.exit(f"not hidden: {found}")
    print(f"{hidden} system libraries hidden, and all headers", flush=True)
    os.execvp(command[0], command)

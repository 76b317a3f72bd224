"""The checked builds: the programs of `wallet/` at two levels of optimisation, and the Python module."""

from __future__ import annotations

import os
import subprocess
import sys
import tempfile
from pathlib import Path

from . import public
from .memcheck import Watched, watch

RELEASE = public.ROOT / "build/release"
PROGRAMS = "tests/native/ctime"
LEVELS = ("O2", "O3")
LIFE = Path(__file__).with_name("manager_life.py")


def watch_room(level: str, tree: Path = RELEASE) -> Watched:
    """`wallet/`, compiled at this level of optimisation."""
    with tempfile.TemporaryDirectory() as folder:
        program = tree / PROGRAMS / f"ctime_{level}"
        return watch([str(program)], public.by_lines(), Path(folder))


def watch_manager(tree: Path = RELEASE) -> Watched:
    """A manager's life in the interpreter, with the module of a release."""
    marks = tree / PROGRAMS / "libctime_marks.so"
    environment = {
        "LD_PRELOAD": str(marks),
        "PYTHONPATH": os.pathsep.join([str(tree / "package"), str(public.ROOT)]),
        # Each object in a separate allocation, whose bounds the checker knows.
        "PYTHONMALLOC": "malloc",
        "PYTHONDONTWRITEBYTECODE": "1",
        "PYTHONHASHSEED": "0",
    }
    with tempfile.TemporaryDirectory() as folder:
        command = [os.path.realpath(sys.executable), str(LIFE), str(marks)]
        return watch(command, public.by_functions(), Path(folder), environment=environment)


def code_of(object_file: Path) -> bytes:
    """An object file without its line numbers."""
    with tempfile.TemporaryDirectory() as folder:
        plain = Path(folder) / "plain.o"
        subprocess.run(["objcopy", "--strip-debug", str(object_file), str(plain)], check=True, timeout=60)
        return plain.read_bytes()


def objects(target: str, tree: Path = RELEASE) -> dict[str, Path]:
    """A target's object files by the name of their source."""
    [folder] = tree.glob(f"**/CMakeFiles/{target}.dir")
    return {path.name: path for path in folder.rglob("*.o")}


def differing_objects(tree: Path = RELEASE) -> list[str]:
    """Sources for which the code checked at -O3 differs from that in a release."""
    released, watched = objects("tessaline_wallet", tree), objects("ctime_wallet_O3", tree)
    if not released or set(released) != set(watched):
        raise LookupError(f"{sorted(released)} is not {sorted(watched)}")
    return [name for name in sorted(released) if code_of(released[name]) != code_of(watched[name])]

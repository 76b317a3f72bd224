"""The compiler of the wheels: Zig's, which knows old glibcs by number, as programs with gcc's options."""

from __future__ import annotations

import importlib.util
import os
from pathlib import Path

from .outside import GLIBC

FLAGS = "-fno-sanitize=all -ffunction-sections -fdata-sections -fvisibility=hidden"
HERE = Path(__file__).parent


def zig() -> Path:
    found = importlib.util.find_spec("ziglang")
    assert found is not None
    assert found.origin is not None
    return Path(found.origin).parent


def _written(path: Path, text: str) -> None:
    """Left alone where it is the same: a build tree looks at its time."""
    if not path.exists() or path.read_text() != text:
        path.write_text(text)


def put_into(place: Path, machine: str) -> None:
    """The programs in `bin`, and a toolchain file that builds with them against `prefix`."""
    root, place = Path.cwd(), place.resolve()
    cache = f"{root}/build/bundled/zig"
    head = f"#!/bin/sh\nexport ZIG_GLOBAL_CACHE_DIR={cache} ZIG_LOCAL_CACHE_DIR={cache}\n"
    folder = place / "bin"
    folder.mkdir(parents=True, exist_ok=True)
    target = f"-target {machine}-linux-gnu.{GLIBC[0]}.{GLIBC[1]} {FLAGS} -ffile-prefix-map={root}/="
    for name, options in {"cc": target, "c++": target, "ar": "", "ranlib": ""}.items():
        program = folder / f"zig-{name}"
        _written(program, f'{head}exec {zig()}/zig {name} {options} "$@"\n')
        program.chmod(0o755)
    text = (HERE / "toolchain.cmake.in").read_text()
    text = text.replace("@BIN@", str(folder)).replace("@PREFIX@", str(place / "prefix"))
    if machine != os.uname().machine:
        text = f"set(CMAKE_SYSTEM_NAME Linux)\nset(CMAKE_SYSTEM_PROCESSOR {machine})\n{text}"
    _written(place / "toolchain.cmake", text)

"""The compiler of the wheels: Zig's, which can target old glibcs and musl, as programs with gcc's options."""

from __future__ import annotations

import importlib.util
from pathlib import Path

from .libc import UNWINDER
from .targets import Platform

FLAGS = "-fno-sanitize=all -ffunction-sections -fdata-sections -fvisibility=hidden"
TOOLCHAIN = Path(__file__).with_name("toolchain.cmake.in")


def zig() -> Path:
    found = importlib.util.find_spec("ziglang")
    assert found is not None
    assert found.origin is not None
    return Path(found.origin).parent


def _written(path: Path, text: str) -> None:
    """Unchanged files keep their time stamp, which the build tree checks."""
    if not path.exists() or path.read_text() != text:
        path.write_text(text)


def put_into(place: Path, platform: Platform) -> None:
    """The programs in `bin`, and a toolchain file that builds with them against `prefix`."""
    root, place = Path.cwd(), place.resolve()
    cache = place / "zig"
    # Options for what Zig compiles by itself, its C++ runtime. Debug information would contain its path.
    everywhere = f"# +-ffile-prefix-map={root}/=/ +-ffile-compilation-dir=/"
    head = f"""\
#!/bin/sh
export ZIG_GLOBAL_CACHE_DIR={cache} ZIG_LOCAL_CACHE_DIR={cache}
export CCC_OVERRIDE_OPTIONS='{everywhere}'
"""
    folder = place / "bin"
    folder.mkdir(parents=True, exist_ok=True)
    target = f"-target {platform.compiled} {FLAGS}"
    for name, options in {"cc": target, "c++": target, "ar": "", "ranlib": ""}.items():
        program = folder / f"zig-{name}"
        _written(program, f'{head}exec {zig()}/zig {name} {options} "$@"\n')
        program.chmod(0o755)
    text = TOOLCHAIN.read_text()
    told = {
        "BIN": folder,
        "PREFIX": place / "prefix",
        "MACHINE": platform.machine,
        "UNWINDER": place / "prefix/lib" / UNWINDER if platform.libc.has_unwinder else "",
    }
    for name, value in told.items():
        text = text.replace(f"@{name}@", str(value))
    _written(place / "toolchain.cmake", text)

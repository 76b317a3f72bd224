"""Which libraries a process may have opened that uses the wheel and nothing else of the kind."""

from __future__ import annotations

from .outside import OUTSIDE

# What the modules of CPython's own library are linked with, under the names that all distributions use.
INTERPRETER = (
    "libbz2.so",
    "libcrypto.so",
    "libexpat.so",
    "libffi.so",
    "liblzma.so",
    "libncursesw.so",
    "libpanelw.so",
    "libpython3.",
    "libreadline.so",
    "libsqlite3.so",
    "libssl.so",
    "libtinfo.so",
    "libuuid.so",
    "libz.so",
)


def is_of_the_interpreter(name: str) -> bool:
    return name.startswith(INTERPRETER)


def strangers(maps: str, *places: str) -> list[str]:
    """The libraries in a memory map that are not in `places`, nor glibc's, nor the interpreter's."""
    lines = [line.split(maxsplit=5) for line in maps.splitlines()]
    paths = {line[5] for line in lines if len(line) == 6 and ".so" in line[5]}
    return sorted(
        path
        for path in paths
        if not path.startswith(tuple(f"{place}/" for place in places))
        and (name := path.rpartition("/")[2]) not in OUTSIDE
        and not is_of_the_interpreter(name)
    )

"""Reads metadata of a shared library."""

from __future__ import annotations

import re
import subprocess
import zlib
from dataclasses import dataclass
from pathlib import Path


@dataclass(frozen=True)
class Library:
    path: Path
    machine: str
    glibc: tuple[int, int]
    """The oldest version that has all symbols which the library imports; (0, 0) if none is of glibc."""
    needed: frozenset[str]
    search_path: str
    exports: frozenset[str]
    sections: frozenset[str]
    build_id: str
    debug_link: tuple[str, int] | None

    def debugged_by(self, file: Path) -> bool:
        """Whether a debugger accepts that file as this library's debug information."""
        return self.debug_link == (file.name, zlib.crc32(file.read_bytes())) and (
            self.build_id in _said_by("readelf", "--wide", "--notes", str(file))
        )


def read(path: Path) -> Library:
    text = _said_by(
        *("readelf", "--wide", "--file-header", "--dynamic", "--version-info", "--sections", "--notes"),
        *("--debug-dump=links,no-follow-links", str(path)),
    )
    link = re.search(r"Separate debug info file: (\S+)\s+CRC value: (0x[0-9a-f]+)", text)
    versions = re.findall(r"Name: GLIBC_(\d+)\.(\d+)", text)
    symbols = _said_by("nm", "--dynamic", "--defined-only", "--format=posix", str(path))
    return Library(
        path,
        "aarch64" if re.search(r"Machine: +AArch64", text) else "x86_64",
        max(((int(major), int(minor)) for major, minor in versions), default=(0, 0)),
        frozenset(re.findall(r"\(NEEDED\).*\[(.+)\]", text)),
        ":".join(re.findall(r"\((?:RPATH|RUNPATH)\).*\[(.+)\]", text)),
        frozenset(line.split()[0] for line in symbols.splitlines()),
        frozenset(re.findall(r"^ *\[ *\d+\] (\.\S+)", text, re.MULTILINE)),
        re.findall(r"Build ID: ([0-9a-f]+)", text)[0],
        (link[1], int(link[2], 16)) if link else None,
    )


def _said_by(*command: str) -> str:
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=60).stdout

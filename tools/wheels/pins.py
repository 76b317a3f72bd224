"""The packages of Debian from which a wheel is built: sources and headers."""

from __future__ import annotations

import tomllib
from collections.abc import Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import Any

PLACE = Path("build/bundled/sources")
PINS = Path(__file__).with_name("sources.toml")
HEADERS = Path(__file__).with_name("headers.toml")


@dataclass(frozen=True)
class Pin:
    name: str
    """Of its section in the file."""
    suite: str
    version: str
    sha256: Mapping[str, str]
    """Of two files each."""

    kind = "deb"

    @property
    def package(self) -> str:
        return self.name


@dataclass(frozen=True)
class Source(Pin):
    licence: str
    text: str
    """The file of the source that holds it."""

    kind = "deb-src"

    @property
    def upstream(self) -> str:
        return self.version.rpartition("-")[0]

    @property
    def archive(self) -> str:
        """Upstream's."""
        return next(name for name in self.sha256 if ".orig.tar." in name)

    @property
    def folder(self) -> Path:
        return PLACE / f"{self.package}-{self.upstream}"


class Headers(Pin):
    """Of a Python, for both machines."""

    @property
    def package(self) -> str:
        return f"libpython{self.python}-dev"

    @property
    def python(self) -> str:
        return f"3.{self.name.removeprefix('cp3')}"

    def file(self, architecture: str) -> Path:
        return PLACE / next(name for name in self.sha256 if name.endswith(f"_{architecture}.deb"))

    def folder(self, architecture: str) -> Path:
        """Where Python.h is."""
        return self.file(architecture).with_suffix("")


def _sections(pins: Path) -> dict[str, Any]:
    return tomllib.loads(pins.read_text())


def pinned(pins: Path = PINS) -> list[Source]:
    return [Source(name=name, **said) for name, said in _sections(pins).items()]


def headers(pins: Path = HEADERS) -> list[Headers]:
    return [Headers(name=name, **said) for name, said in _sections(pins).items()]

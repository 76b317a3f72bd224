"""Which sources a wheel is built from."""

from __future__ import annotations

import tomllib
from collections.abc import Mapping
from dataclasses import dataclass
from pathlib import Path

PLACE = Path("build/bundled/sources")
PINS = Path(__file__).with_name("sources.toml")


@dataclass(frozen=True)
class Source:
    package: str
    version: str
    licence: str
    text: str
    """The file of the source that holds it."""
    sha256: Mapping[str, str]

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


def suite() -> str:
    return str(tomllib.loads(PINS.read_text())["suite"])


def pinned(pins: Path = PINS) -> list[Source]:
    told = tomllib.loads(pins.read_text())
    return [Source(package=name, **said) for name, said in told.items() if isinstance(said, dict)]

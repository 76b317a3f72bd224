"""The mutants of the lists, and where in the sources they are."""

from __future__ import annotations

import re
import tomllib
import zlib
from collections.abc import Iterator
from dataclasses import dataclass
from functools import cache
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
SOURCES = {".cpp", ".hpp", ".py"}


@dataclass(frozen=True)
class Mutant:
    room: str
    landmark: str
    old: str
    new: str
    tests: tuple[str, ...]

    @property
    def number(self) -> int:
        """Independent of its position in the lists, so that a longer list rebuilds little."""
        return zlib.crc32("\0".join((self.room, self.landmark, self.old, self.new)).encode())

    def __str__(self) -> str:
        within = f"{self.landmark.strip()} ... " if self.landmark else ""
        return f"{self.room}: {within}{self.old}  ->  {self.new or 'nothing'}"


@dataclass(frozen=True)
class Place:
    """The text that a mutant replaces."""

    file: Path
    begin: int
    end: int


def read_lists(folder: Path = HERE) -> list[Mutant]:
    made = []
    for path in sorted(folder.glob("*.toml")):
        for room, groups in tomllib.loads(path.read_text()).items():
            for tests, entries in groups.items():
                for entry in entries:
                    landmark, old, new = entry if len(entry) == 3 else ("", *entry)
                    made.append(Mutant(room, landmark, old, new, tuple(tests.split())))
    return made


@cache
def texts_of(place: Path) -> dict[Path, str]:
    files = sorted(place.rglob("*")) if place.is_dir() else [place] if place.exists() else []
    return {file: file.read_text() for file in files if file.suffix in SOURCES}


def _finds(place: Path, text: str) -> Iterator[tuple[Path, re.Match[str]]]:
    pattern = re.compile(r"\s+".join(map(re.escape, text.split())))
    for file, content in texts_of(place).items():
        for match in pattern.finditer(content):
            yield file, match


def _end_of_function(text: str, begin: int, end: int) -> int:
    """The end of the block that begins there: its last line is indented no more than its first."""
    line = text.rfind("\n", 0, begin) + 1
    indentation = len(text[line:]) - len(text[line:].lstrip(" "))
    closing = re.compile(rf"^ {{0,{indentation}}}(?:\}}|def |async def |class |@)", re.MULTILINE)
    found = closing.search(text, text.index("\n", end))
    return found.start() if found else len(text)


def _locate_below(place: Path, mutant: Mutant) -> Place | None:
    marks = list(_finds(place, mutant.landmark or mutant.old))
    if len(marks) != 1:
        return None
    file, match = marks[0]
    if mutant.landmark:
        begin, end = match.start(), _end_of_function(match.string, *match.span())
        within = [found for _, found in _finds(file, mutant.old) if begin <= found.start() < end]
        if not within:
            return None
        match = within[0]
    return Place(file, *match.span())


def locate(mutant: Mutant, root: Path = ROOT) -> Place | None:
    """In the file that the list names, or anywhere in its folder."""
    named = root / mutant.room
    return _locate_below(named, mutant) or (None if named.is_dir() else _locate_below(named.parent, mutant))

"""What a shared library says of itself."""

from __future__ import annotations

import zlib
from dataclasses import dataclass
from pathlib import Path

from elftools.elf.dynamic import DynamicSection
from elftools.elf.elffile import ELFFile
from elftools.elf.sections import SymbolTableSection


@dataclass(frozen=True)
class Library:
    path: Path
    needed: frozenset[str]
    search_path: str
    exports: frozenset[str]
    sections: frozenset[str]
    build_id: str
    debug_link: tuple[str, int] | None

    def debugged_by(self, file: Path) -> bool:
        """Whether a debugger that looks for this library's debug information takes that file."""
        return self.debug_link == (file.name, zlib.crc32(file.read_bytes())) and (
            read(file).build_id == self.build_id
        )


def read(path: Path) -> Library:
    with path.open("rb") as file:
        elf = ELFFile(file)
        needed, search_path, exports = set(), "", set()
        # A file of debug information keeps the names of those sections, and nothing of what is in them.
        dynamic, symbols = elf.get_section_by_name(".dynamic"), elf.get_section_by_name(".dynsym")
        if isinstance(dynamic, DynamicSection) and dynamic["sh_type"] != "SHT_NOBITS":
            needed = {tag.needed for tag in dynamic.iter_tags("DT_NEEDED")}
            paths = [tag.runpath for tag in dynamic.iter_tags("DT_RUNPATH")]
            search_path = ":".join([*paths, *(tag.rpath for tag in dynamic.iter_tags("DT_RPATH"))])
        if isinstance(symbols, SymbolTableSection):
            exports = {
                symbol.name
                for symbol in symbols.iter_symbols()
                if symbol["st_shndx"] != "SHN_UNDEF" and symbol["st_info"]["bind"] != "STB_LOCAL"
            }
        notes = elf.get_section_by_name(".note.gnu.build-id")
        return Library(
            path,
            frozenset(needed),
            search_path,
            frozenset(exports),
            frozenset(section.name for section in elf.iter_sections()),
            "" if notes is None else next(notes.iter_notes())["n_desc"],
            _debug_link(elf),
        )


def _debug_link(elf: ELFFile) -> tuple[str, int] | None:
    section = elf.get_section_by_name(".gnu_debuglink")
    if section is None:
        return None
    data = section.data()
    return data[: data.index(0)].decode(), int.from_bytes(data[-4:], "little")

"""The pages of the documentation: their blocks of code and the rows of their tables."""

from __future__ import annotations

import contextlib
import io
import re
from dataclasses import dataclass
from pathlib import Path
from typing import Any

DOCS = Path(__file__).resolve().parents[2] / "docs"
PAGES = sorted(DOCS.glob("*.md"))

_FENCE = re.compile(r"^```(\w+)(?: ([^\n]*))?\n(.*?)^```$", re.MULTILINE | re.DOTALL)
_SECTION = re.compile(r"^## (.*)$", re.MULTILINE)
_CODE = re.compile(r"`([^`]+)`")


@dataclass(frozen=True)
class Block:
    """A fenced block: its language, the text after that, and the number of its first line."""

    page: Path
    language: str
    info: str
    text: str
    line: int

    @property
    def place(self) -> str:
        return f"{self.page.name}:{self.line}"


def blocks(page: Path) -> list[Block]:
    text = page.read_text()
    return [
        Block(page, found[1], found[2] or "", found[3], text.count("\n", 0, found.start(3)) + 1)
        for found in _FENCE.finditer(text)
    ]


def code_blocks(page: Path) -> list[Block]:
    return [block for block in blocks(page) if block.language == "python"]


def run(block: Block, names: dict[str, Any], text: str | None = None) -> str:
    """Runs a block, or `text` in its place, with `names` as globals, and returns its output."""
    program = "\n" * (block.line - 1) + (block.text if text is None else text)
    printed = io.StringIO()
    with contextlib.redirect_stdout(printed):
        exec(compile(program, block.page.name, "exec"), names)
    return printed.getvalue()


def section(page: Path, heading: str) -> str:
    headed = _SECTION.split(page.read_text())
    return dict(zip(headed[1::2], headed[2::2], strict=True))[heading]


def rows(page: Path, heading: str) -> list[list[str]]:
    """The cells of every table row in that section, without header and ruler."""
    lines = [line for line in section(page, heading).splitlines() if line.startswith("|")]
    return [[cell.strip() for cell in line.strip("|").split("|")] for line in lines[2:]]


def code_in(cell: str) -> list[str]:
    return _CODE.findall(cell)

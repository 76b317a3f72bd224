"""Hooks of the site generator: optional pages, and links to files outside the site."""

from __future__ import annotations

import re
from collections.abc import Container
from pathlib import Path
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from mkdocs.config.defaults import MkDocsConfig
    from mkdocs.structure.pages import Page

ROOT = Path(__file__).resolve().parents[1]
_BENCHMARKS = "benchmarks/README.md"
CARDS_FROM = 4  # columns
_DRAWING = re.compile(r"!\[[^\]]*\]\(((?:figures/)?([\w-]+)\.svg)\)")
_INCLUDE = re.compile(r"^<!-- include (\S+) -->$", re.MULTILINE)
_CODE = re.compile(r"^<!-- code (\S+) -->$", re.MULTILINE)
_HEADING = re.compile(r"^## (\S+)$", re.MULTILINE)
_INLINE_CODE = re.compile(r"(?<=<code>)[^<\n]+(?=</code>)")
_SHORT_CODE = re.compile(r"<code>(?=[^<\n]{1,30}</code>)")
_BREAKS = re.compile(r"(?<=\w[_.(])(?=\w)|(?<=\w)(?=/)|(?<=[a-z])(?=[A-Z])")
_TABLE = re.compile(r"<table>\n.*?</table>", re.DOTALL)
_HEADER = re.compile(r"<th(?: [^>]*)?>(.*?)</th>", re.DOTALL)
_LOOSE_BRACKET = re.compile(r"(?<=</code>)\n\)")
_TAG = re.compile(r"<[^>]+>")
_LINK = re.compile(r"(?<!!)\[([^\]]+)\]\(([^)#:\s]+)(?:#[^)]*)?\)")


def on_config(config: MkDocsConfig) -> MkDocsConfig:
    if (Path(config.docs_dir) / _BENCHMARKS).exists() and config.nav is not None:
        config.nav.append({"Benchmarks": _BENCHMARKS})
    return config


def without_links_out(markdown: str, folder: Path, docs: Path, shown: Container[str] = ()) -> str:
    """The text with links to files of the project that are not pages replaced by plain text.

    shown: names of files that have a section on the page, to which such links then point.
    """

    def plain(link: re.Match[str]) -> str:
        target = (folder / link[2]).resolve()
        if not target.is_relative_to(ROOT) or target.is_relative_to(docs) or not target.exists():
            return link[0]
        return f"[{link[1]}](#{target.name.replace('.', '')})" if target.name in shown else link[1]

    return _LINK.sub(plain, markdown)


def with_drawings(markdown: str, folder: Path) -> str:
    """The text with drawings embedded in place of the links to them, so that they use the page's colours."""

    def inline(link: re.Match[str]) -> str:
        svg = (folder / link[1]).read_text()
        return f'<figure class="drawing {link[2]}">\n{svg}</figure>'

    return _DRAWING.sub(inline, markdown)


def with_included(markdown: str, docs: Path) -> str:
    """The text with files of the project in place of the lines that include them, as text or as code."""

    def text(line: re.Match[str]) -> str:
        file = ROOT / line[1]
        return without_links_out(file.read_text(), file.parent, docs)

    def code(line: re.Match[str]) -> str:
        return f"```python\n{(ROOT / line[1]).read_text()}```"

    return _CODE.sub(code, _INCLUDE.sub(text, markdown))


def on_page_markdown(markdown: str, *, page: Page, config: MkDocsConfig, **_: Any) -> str:
    docs = Path(config.docs_dir).resolve()
    folder = (docs / page.file.src_uri).parent
    own = without_links_out(markdown, folder, docs, shown=_HEADING.findall(markdown))
    return with_drawings(with_included(own, docs), folder)


def with_breaks(html: str) -> str:
    """The page with break opportunities in names in tables, and without breaks in short names elsewhere."""
    parts = re.split(f"({_TABLE.pattern})", html, flags=_TABLE.flags)
    parts[::2] = [_SHORT_CODE.sub('<code class="whole">', part) for part in parts[::2]]
    parts[1::2] = [_INLINE_CODE.sub(lambda name: _BREAKS.sub("<wbr>", name[0]), part) for part in parts[1::2]]
    return "".join(parts)


def with_labels(html: str) -> str:
    """The page with the header of its column in each cell of a table that is too wide for a phone."""

    def labelled(table: re.Match[str]) -> str:
        names = [_TAG.sub("", name) for name in _HEADER.findall(table[0])]
        if len(names) < CARDS_FROM:
            return table[0]
        parts = table[0].split("<td")
        cells = [f'<td data-label="{names[i % len(names)]}"{part}' for i, part in enumerate(parts[1:])]
        return "".join([parts[0], *cells]).replace("<table>", f'<table data-columns="{len(names)}">', 1)

    return _TABLE.sub(labelled, html)


def on_page_content(html: str, **_: Any) -> str:
    return _LOOSE_BRACKET.sub(")", with_labels(with_breaks(html)))

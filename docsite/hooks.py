"""What the site does besides: pages that come and go, and links that lead out of it."""

from __future__ import annotations

import re
from pathlib import Path
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from mkdocs.config.defaults import MkDocsConfig
    from mkdocs.structure.pages import Page

ROOT = Path(__file__).resolve().parents[1]
_BENCHMARKS = "benchmarks/README.md"
_DRAWING = re.compile(r"!\[[^\]]*\]\((figures/([\w-]+)\.svg)\)")
_INCLUDE = re.compile(r"^<!-- include (\S+) -->$", re.MULTILINE)
_INLINE_CODE = re.compile(r"(?<=<code>)[^<]+(?=</code>)")
_BREAKS = re.compile(r"(?<=\w[_.(])(?=\w)|(?<=\w)(?=/)|(?<=[a-z])(?=[A-Z])")
_LINK = re.compile(r"(?<!!)\[([^\]]+)\]\(([^)#:\s]+)(?:#[^)]*)?\)")


def on_config(config: MkDocsConfig) -> MkDocsConfig:
    if (Path(config.docs_dir) / _BENCHMARKS).exists() and config.nav is not None:
        config.nav.append({"Benchmarks": _BENCHMARKS})
    return config


def without_links_out(markdown: str, folder: Path, docs: Path) -> str:
    """The text with links to files of the project that are no pages turned into plain text."""

    def plain(link: re.Match[str]) -> str:
        target = (folder / link[2]).resolve()
        leads_out = target.is_relative_to(ROOT) and not target.is_relative_to(docs) and target.exists()
        return link[1] if leads_out else link[0]

    return _LINK.sub(plain, markdown)


def with_drawings(markdown: str, folder: Path) -> str:
    """The text with drawings in place of the links to them, so that they follow the page's own colours."""

    def inline(link: re.Match[str]) -> str:
        svg = (folder / link[1]).read_text()
        return f'<figure class="drawing {link[2]}">\n{svg}</figure>'

    return _DRAWING.sub(inline, markdown)


def with_included(markdown: str, docs: Path) -> str:
    """The text with files of the project in place of the lines that ask for them."""
    return _INCLUDE.sub(lambda line: without_links_out((ROOT / line[1]).read_text(), ROOT, docs), markdown)


def on_page_markdown(markdown: str, *, page: Page, config: MkDocsConfig, **_: Any) -> str:
    docs = Path(config.docs_dir).resolve()
    folder = (docs / page.file.src_uri).parent
    return with_drawings(with_included(without_links_out(markdown, folder, docs), docs), folder)


def with_breaks(html: str) -> str:
    """The page with places where a narrow table may break a name."""
    return _INLINE_CODE.sub(lambda name: _BREAKS.sub("<wbr>", name[0]), html)


def on_page_content(html: str, **_: Any) -> str:
    return with_breaks(html)

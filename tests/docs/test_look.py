"""The check of the documentation in a browser finds faults of a page."""

from __future__ import annotations

import asyncio
import shutil
from pathlib import Path

import pytest

from docsite import look
from docsite.browser import chromium, served

CHROMIUM = shutil.which("chromium")

pytestmark = [
    pytest.mark.process,
    pytest.mark.skipif(
        CHROMIUM is None, reason="there is no Chromium: `make docs ARGS=--browser` installs it"
    ),
]

WRONG = {
    "the page is": '<div style="width: 3000px">wide</div>',
    "scrolls sideways": '<div class="md-typeset__scrollwrap" style="overflow: auto; width: 100px">'
    '<div style="width: 300px">table</div></div>',
    "cut off": '<figure><svg width="100"><text x="90" y="10">too long a text</text></svg></figure>',
    "cut code": '<pre style="overflow: auto"><code>' + "code " * 500 + "</code></pre>",
    "faint": '<p>dark <a style="color: #999">pale</a></p>',
}
RIGHT = """<p>dark on light</p><pre style="overflow: auto"><code>""" + "code " * 20 + "</code></pre>"


def found(folder: Path) -> dict[str, list[str]]:
    async def all_pages() -> dict[str, list[str]]:
        with served(folder) as base:
            async with chromium(str(CHROMIUM)) as tab:
                pages = sorted(path.name for path in folder.iterdir())
                return {page: await look.wrong_on(tab, base, page) for page in pages}

    return asyncio.run(all_pages())


def test_it_finds_what_is_wrong_and_nothing_else(tmp_path: Path) -> None:
    for number, body in enumerate([RIGHT, *WRONG.values()]):
        (tmp_path / f"{number}.html").write_text(f"<!doctype html><body><article>{body}</article>")
    right, *wrong = found(tmp_path).values()
    assert right == []
    for texts, kind in zip(wrong, WRONG, strict=True):
        assert any(kind in text for text in texts), texts

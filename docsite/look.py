"""Checks the built documentation in headless Chromium, on a screen and on a phone, light and dark.

    python -m docsite.look build/docs

Nothing may be wider than its box except code on a phone, which scrolls; the search for a public name must
find its reference first; and text must have enough contrast to its background.
"""

from __future__ import annotations

import argparse
import asyncio
import shutil
import sys
from pathlib import Path

from . import reference
from .browser import Tab, chromium, served

WIDTHS = (1280, 390)
SCHEMES = ("default", "slate")
CONTRAST = 4.5
SCRIPTS = Path(__file__).resolve().parent / "scripts"


def script(name: str) -> str:
    return (SCRIPTS / f"{name}.js").read_text()


async def wrong_on(tab: Tab, base: str, page: str) -> list[str]:
    """The faults of a page, on each screen and in each scheme."""
    await tab.open(f"{base}/{page}")
    await tab.ask(script("still"))
    wrong = []
    for scheme in SCHEMES:
        # As the page's switch does it.
        await tab.ask(f"document.body.setAttribute('data-md-color-scheme', {scheme!r})")
        for width in WIDTHS:
            await tab.be_wide(width)
            found = [*await tab.ask(script("wide")), *await tab.ask(f"{script('faint')}({CONTRAST})")]
            wrong += [f"{page}, {width}, {scheme}: {text}" for text in found]
    return wrong


async def wrong_in_search(tab: Tab, base: str, places: dict[str, str]) -> list[str]:
    await tab.be_wide(1280)
    await tab.open(f"{base}/index.html")
    wrong = []
    for name, place in places.items():
        # The first is the page, the second the best match on it.
        found = await tab.ask(f"{script('search')}({name!r})")
        if place not in [link.removeprefix(f"{base}/").partition("?")[0] for link in found[:2]]:
            wrong.append(f"search for {name}: {found[:2]} come first, not {place}")
    return wrong


async def look(folder: Path, program: str, only: list[str]) -> list[str]:
    pages = sorted(str(path.relative_to(folder)) for path in folder.rglob("*.html"))
    with served(folder) as base:
        async with chromium(program) as tab:
            wrong = [
                text
                for page in only or [page for page in pages if page != "404.html"]
                for text in await wrong_on(tab, base, page)
            ]
            if only:
                return wrong
            return wrong + await wrong_in_search(tab, base, reference.tagged(folder / reference.INDEX))


def main() -> int:
    parser = argparse.ArgumentParser(prog="python -m docsite.look", description=__doc__)
    parser.add_argument("folder", type=Path)
    parser.add_argument("pages", nargs="*", help="only these, such as keeper.html, and no search")
    given = parser.parse_args()
    program = shutil.which("chromium") or shutil.which("chromium-browser") or shutil.which("google-chrome")
    if program is None:
        print("there is no Chromium to look with: apt-get install chromium", file=sys.stderr)
        return 1
    wrong = asyncio.run(look(given.folder, program, given.pages))
    for text in wrong:
        print(text, file=sys.stderr)
    if not wrong:
        print("in a browser: nothing is cut off, faint or hard to find")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())

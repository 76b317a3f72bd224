"""Counts the pages of a built site, after a check for files that a browser would load from elsewhere."""

from __future__ import annotations

import re
import sys
from html.parser import HTMLParser
from pathlib import Path

_LOADED_BY = {"src", "srcset", "poster", "data"}
_ELSEWHERE = re.compile(r"\s*(?:https?:)?//")
_STYLE_LOADS = re.compile(r"""(?:url\(|@import)\s*["']?\s*((?:https?:)?//[^"')\s]+)""")


class _Loads(HTMLParser):
    """Collects what a page loads from another site; mere links are not included."""

    def __init__(self) -> None:
        super().__init__()
        self.found: list[str] = []

    def handle_starttag(self, tag: str, attrs: list[tuple[str, str | None]]) -> None:
        for name, value in attrs:
            loads = name in _LOADED_BY or (tag == "link" and name == "href") or name == "style"
            if value is None or not loads:
                continue
            if name == "style":
                self.found += _STYLE_LOADS.findall(value)
            elif _ELSEWHERE.match(value):
                self.found.append(value)


def loads_of(page: str) -> list[str]:
    """The URLs on other sites from which an HTML page loads something."""
    parser = _Loads()
    parser.feed(page)
    return parser.found


def main(folder: Path) -> int:
    pages = sorted(path for path in folder.rglob("*.html") if path.name != "404.html")
    wrong = [f"{path.name} loads {url}" for path in pages for url in loads_of(path.read_text())]
    for path in folder.rglob("*.css"):
        wrong += [f"{path.name} loads {url}" for url in _STYLE_LOADS.findall(path.read_text())]
    if wrong or not pages:
        print("\n".join(wrong) or "no pages", file=sys.stderr)
        return 1
    print(f"documentation: {len(pages)} pages in {folder}")
    return 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))

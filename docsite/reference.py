"""Where the reference has each public name, and the search's data for finding it there."""

from __future__ import annotations

import json
import re
import sys
from pathlib import Path

INDEX = "search/search_index.json"
_DOCS = Path(__file__).resolve().parents[1] / "docs"
_MODULE = re.compile(r"^::: ([\w.]+)$", re.MULTILINE)
_MEMBER = re.compile(r"^        - (\w+)$", re.MULTILINE)


def places() -> dict[str, str]:
    """The page and anchor of each name that a reference page lists, or shows by itself."""
    found: dict[str, str] = {}
    for page in ("reference", "modules", "reference-integrations"):
        text = (_DOCS / f"{page}.md").read_text()
        parts = _MODULE.split(text)
        for module, options in zip(parts[1::2], parts[2::2], strict=True):
            name = module.rpartition(".")[2]
            if name[0].isupper():
                found[name] = f"{page}.html#{module}"
            for name in _MEMBER.findall(options.partition("\n## ")[0]):
                found.setdefault(name, f"{page}.html#{module}.{name}")
    return found


def sought() -> dict[str, str]:
    """The same of names that people search for; constants such as KEY are common words."""
    return {name: place for name, place in places().items() if not name.isupper()}


def with_members(names: dict[str, str], locations: list[str]) -> dict[str, str]:
    """The names by their places, with the members of classes; of equal names only the first."""
    found = {place: name for name, place in names.items()}
    for location in locations:
        owner, _, name = location.rpartition(".")
        if owner in found and name not in found.values():
            found[location] = name
    return found


def tag_index(index: Path) -> None:
    """Tag the sections of the search's index that are references: a tag has more weight than text."""
    content = json.loads(index.read_text())
    entries = {entry["location"]: entry for entry in content["docs"]}
    if missing := set(sought().values()) - set(entries):
        raise ValueError(f"names that the search would not find: {sorted(missing)}")
    names = with_members(sought(), list(entries))
    for place, name in names.items():
        entries[place]["tags"] = [name]
        # The search also matches prefixes: Keeper comes before KeeperStatus.
        if any(other.lower().startswith(name.lower()) for other in names.values() if other != name):
            entries[place]["boost"] = 4
    index.write_text(json.dumps(content))


def tagged(index: Path) -> dict[str, str]:
    """The place of each name that a reader may search for."""
    return {e["tags"][0]: e["location"] for e in json.loads(index.read_text())["docs"] if "tags" in e}


if __name__ == "__main__":
    tag_index(Path(sys.argv[1]) / INDEX)

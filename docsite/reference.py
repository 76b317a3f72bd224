"""Where the reference has each public name, and the search's data for finding it there."""

from __future__ import annotations

import json
import re
import sys
from pathlib import Path

_DOCS = Path(__file__).resolve().parents[1] / "docs"
_MODULE = re.compile(r"^::: ([\w.]+)$", re.MULTILINE)
_MEMBER = re.compile(r"^        - (\w+)$", re.MULTILINE)


def places() -> dict[str, str]:
    """The page and anchor of each name that a reference page lists."""
    found: dict[str, str] = {}
    for page in ("reference", "modules"):
        text = (_DOCS / f"{page}.md").read_text()
        parts = _MODULE.split(text)
        for module, options in zip(parts[1::2], parts[2::2], strict=True):
            for name in _MEMBER.findall(options.partition("\n## ")[0]):
                found.setdefault(name, f"{page}.html#{module}.{name}")
    return found


def sought() -> dict[str, str]:
    """The same of names that people search for; constants such as KEY are common words."""
    return {name: place for name, place in places().items() if not name.isupper()}


def tag_index(index: Path) -> None:
    """Tag the sections of the search's index that are references: a tag has more weight than text."""
    content = json.loads(index.read_text())
    names = {place: name for name, place in sought().items()}
    tagged = [entry for entry in content["docs"] if entry["location"] in names]
    if len(tagged) != len(names):
        missing = set(names) - {entry["location"] for entry in tagged}
        raise ValueError(f"names that the search would not find: {sorted(missing)}")
    for entry in tagged:
        name = names[entry["location"]]
        entry["tags"] = [name]
        # The search also matches prefixes: Keeper comes before KeeperStatus.
        if any(other != name and other.startswith(name) for other in names.values()):
            entry["boost"] = 4
    index.write_text(json.dumps(content))


if __name__ == "__main__":
    tag_index(Path(sys.argv[1]))

"""pytest plugin: the tests run against the installed wheel that TESSALINE_WHEEL names."""

from __future__ import annotations

import os
import sys
import zipfile
from collections import Counter
from pathlib import Path

import pytest

from tessaline import auth

WHEEL = Path(os.environ["TESSALINE_WHEEL"])
SITE = Path(auth.__file__).parents[1]
LEFT_OUT = {
    "tests/ctime/": "needs the objects of the build tree, and valgrind",
    "tests/fuzz/": "needs the native replayers of the build tree",
    "tests/instructions/": "needs the build tree, and valgrind",
    "tests/tooling/": "looks at the sources and the tools",
    "tests/torture/": "needs the build tree's library of faults",
}
RUN_ALL_THE_SAME = "tests/tooling/test_demo.py"

_left_out: Counter[str] = Counter()
_passed: list[pytest.TestReport] = []


def place_left_out(item: pytest.Item) -> str | None:
    if item.nodeid.startswith(RUN_ALL_THE_SAME):
        return None
    return next((place for place in LEFT_OUT if item.nodeid.startswith(place)), None)


def pytest_sessionstart() -> None:
    if not SITE.is_relative_to(sys.prefix):
        pytest.exit(f"{auth.__file__} is not in this environment", returncode=1)
    with zipfile.ZipFile(WHEEL) as archive:
        files = [name for name in archive.namelist() if name.startswith("tessaline") and "-info/" not in name]
        changed = [name for name in files if not same(SITE / name, archive.read(name))]
    if changed:
        pytest.exit(f"installed, but not as in the wheel: {changed}", returncode=1)


def same(path: Path, content: bytes) -> bool:
    return path.is_dir() or (path.is_file() and path.read_bytes() == content)


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    places = [(item, place_left_out(item)) for item in items]
    _left_out.update(place for _, place in places if place)
    config.hook.pytest_deselected(items=[item for item, place in places if place])
    items[:] = [item for item, place in places if not place]


def pytest_terminal_summary(terminalreporter: pytest.TerminalReporter) -> None:
    _passed.extend(terminalreporter.getreports("passed"))
    for place, count in sorted(_left_out.items()):
        terminalreporter.write_line(f"left out: {count} of {place}, which {LEFT_OUT[place]}")


def pytest_unconfigure() -> None:
    """The last line."""
    print(f"{len(_passed)} tests passed against {WHEEL.name}, {_left_out.total()} left out")

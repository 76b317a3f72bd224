"""pytest plugin: the tests run against the wheel that TESSALINE_WHEEL names, as it was installed. When they
are over, no library is open but its own, those of glibc and those of the interpreter."""

from __future__ import annotations

import contextlib
import os
import sys
import zipfile
from collections import Counter
from pathlib import Path

import pytest

from tessaline import auth

from .opened_libraries import strangers

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
_faults: list[str] = []
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


def faults_of_this_process() -> list[str]:
    # However few tests ran, the library that makes requests has been opened, and all that it needs.
    with contextlib.suppress(OSError):
        auth._default_http_transport("GET", "http://127.0.0.1:1/")
    maps = Path("/proc/self/maps").read_text()
    others = strangers(maps, sys.prefix, sys.base_prefix)
    # Packages that the tests use need the system's C++ runtime; that the wheel does not, login.py shows.
    found = [f"{path} is open" for path in others if not Path(path).name.startswith("libstdc++.so.6")]
    for own in ("libcurl-", "libsecp256k1-", "libssl-"):
        if f"{SITE}/tessaline.libs/{own}" not in maps:
            found.append(f"{own}... of the wheel is not open")
    return found


@pytest.hookimpl(trylast=True)
def pytest_sessionfinish(session: pytest.Session) -> None:
    _faults.extend(faults_of_this_process())
    if _faults:
        session.exitstatus = pytest.ExitCode.TESTS_FAILED


def pytest_terminal_summary(terminalreporter: pytest.TerminalReporter) -> None:
    _passed.extend(terminalreporter.getreports("passed"))
    for place, count in sorted(_left_out.items()):
        terminalreporter.write_line(f"left out: {count} of {place}, which {LEFT_OUT[place]}")
    for fault in _faults:
        terminalreporter.write_line(f"FAILED: {fault}", red=True)
    if not _faults:
        terminalreporter.write_line("open libraries: the wheel's, glibc's, the interpreter's, and no others")


def pytest_unconfigure() -> None:
    """The last line."""
    print(f"{len(_passed)} tests passed against {WHEEL.name}, {_left_out.total()} left out")

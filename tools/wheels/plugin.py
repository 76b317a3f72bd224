"""pytest plugin: the tests run against the wheel that TESSALINE_WHEEL names, as it was installed. When they
are over, no library is open but its own, those of glibc and those of the interpreter."""

from __future__ import annotations

import os
import sys
import zipfile
from collections import Counter
from pathlib import Path

import pytest

from tessaline import auth

from .allowed import strangers

WHEEL = Path(os.environ["TESSALINE_WHEEL"])
SITE = Path(auth.__file__).parents[1]
LEFT_OUT = {
    "tests/ctime/": "needs the objects of the build tree and valgrind",
    "tests/fuzz/": "needs the native replayers of the build tree",
    "tests/instructions/": "needs the build tree and valgrind",
    "tests/torture/": "needs the build tree's library of faults",
    "tests/tooling/test_canary.py": "tests a tool",
    "tests/tooling/test_chaos.py": "tests a tool",
    "tests/tooling/test_coverage.py": "tests a tool",
    "tests/tooling/test_house_rules.py": "reads the sources",
    "tests/tooling/test_install.py": "builds the package",
    "tests/tooling/test_release_files.py": "reads the sources",
    "tests/tooling/test_tools.py": "tests a tool",
    "tests/tooling/test_wheel.py": "builds the package",
}

_left_out: Counter[str] = Counter()


def reason_to_leave_out(item: pytest.Item) -> str | None:
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
    left_out = [item for item in items if reason_to_leave_out(item)]
    _left_out.update(str(reason_to_leave_out(item)) for item in left_out)
    config.hook.pytest_deselected(items=left_out)
    items[:] = [item for item in items if not reason_to_leave_out(item)]


@pytest.hookimpl(trylast=True)
def pytest_sessionfinish(session: pytest.Session) -> None:
    maps = Path("/proc/self/maps").read_text()
    found = strangers(maps, sys.prefix, sys.base_prefix)
    own = SITE / "tessaline.libs" / "libcurl-"
    if str(own) not in maps:
        found.append(f"none that begins with {own}")
    if found:
        session.config.stash[FAULTS] = found
        session.exitstatus = pytest.ExitCode.TESTS_FAILED


FAULTS = pytest.StashKey[list[str]]()


def pytest_terminal_summary(terminalreporter: pytest.TerminalReporter, config: pytest.Config) -> None:
    say = terminalreporter.write_line
    for place, count in sorted(_left_out.items()):
        say(f"left out: {count} of {place}: it {LEFT_OUT[place]}")
    found = config.stash.get(FAULTS, [])
    for library in found:
        say(f"FAILED: {library} is open", red=True)
    if not found:
        say("open libraries: the wheel's, glibc's, the interpreter's, and no others")

"""A pytest plugin: refuses to run without the sanitizer's runtime and build, and records what ran."""

from __future__ import annotations

import json
import os
import re
from collections import Counter
from pathlib import Path

import pytest

_outcomes: Counter[str] = Counter()
_skipped: Counter[str] = Counter()


def pytest_sessionstart(session: pytest.Session) -> None:
    import sitecustomize

    from tessaline import auth

    if not sitecustomize.is_instrumented(auth.__file__):
        pytest.exit(f"{auth.__file__} is not the instrumented component", returncode=sitecustomize.REFUSED)
    runtime = os.environ["TESSALINE_SANITIZER_RUNTIME"]
    if runtime not in Path("/proc/self/maps").read_text():
        pytest.exit(f"{runtime} is not loaded", returncode=sitecustomize.REFUSED)


def _foreign_libraries() -> set[str]:
    """Builds of the component's HTTP library in this process that are not the instrumented one."""
    import sitecustomize

    loaded = re.findall(r"/\S+/libtessaline_http\.so$", Path("/proc/self/maps").read_text(), re.MULTILINE)
    return {file for file in loaded if not sitecustomize.is_instrumented(file)}


def pytest_runtest_logreport(report: pytest.TestReport) -> None:
    if report.when == "call" or report.skipped or report.failed:
        _outcomes[report.outcome] += 1
    if report.skipped and isinstance(report.longrepr, tuple):
        _skipped[report.longrepr[2]] += 1


def pytest_sessionfinish(session: pytest.Session, exitstatus: int) -> None:
    if foreign := _foreign_libraries():
        exitstatus = 1
        print("not instrumented, and yet loaded:", *foreign)
    told = {"outcomes": _outcomes, "skipped": _skipped, "exit": int(exitstatus)}
    Path(os.environ["TESSALINE_SANITIZER_OUTCOME"]).write_text(json.dumps(told))

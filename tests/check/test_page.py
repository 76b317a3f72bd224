"""The page about the check: options, exit codes and the fields of its JSON are those of the code."""

from __future__ import annotations

import argparse
from collections.abc import Iterator
from typing import Any

import pytest

import canary
from devserver.testing import DevServer
from tessaline import __main__, _check
from tests.docs.pages import DOCS, code_in, rows

from .conftest import Check

pytestmark = pytest.mark.process

PAGE = DOCS / "check.md"


def fields(value: Any, path: str = "") -> Iterator[str]:
    """The paths of everything that an object holds."""
    if isinstance(value, dict):
        for name, item in value.items():
            yield f"{path}{name}"
            yield from fields(item, f"{path}{name}.")
    elif isinstance(value, list):
        for item in value:
            yield from fields(item, path)


def test_the_fields_of_the_json(
    check: Check, trusted: DevServer, unused_port: int, monkeypatch: pytest.MonkeyPatch
) -> None:
    told = [code for row in rows(PAGE, "JSON") for code in code_in(row[0])]
    with canary.overheard():
        reports = [check(trusted.url, "--json", "--print-token").report]
    reports.append(check(f"http://127.0.0.1:{unused_port}", "--json").report)
    monkeypatch.setenv("https_proxy", f"http://127.0.0.1:{unused_port}")
    reports.append(check(trusted.url, "--json").report)
    assert sorted(told) == sorted({field for report in reports for field in fields(report)})
    # No top-level field but the token may be missing.
    always = {name for name in told if "." not in name} - {"token"}
    assert all(always <= report.keys() for report in reports)


def test_the_exit_codes() -> None:
    told = [int(row[0]) for row in rows(PAGE, "Failures")]
    known = [value for name, value in vars(_check).items() if name.isupper() and isinstance(value, int)]
    success, usage = 0, 2  # argparse has the latter
    assert told == sorted([success, usage, *known])


def options() -> set[str]:
    parser = __main__._parser()
    (commands,) = (action for action in parser._actions if isinstance(action, argparse._SubParsersAction))
    check = commands.choices["check"]
    return {name for action in check._actions for name in action.option_strings} - {"-h", "--help"}


def test_the_options() -> None:
    told = [code_in(row[0])[0].split()[0] for row in rows(PAGE, "Options")]
    assert len(told) == len(set(told))
    assert set(told) == options()

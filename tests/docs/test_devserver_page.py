"""The page of the development server has its options, requests, faults and their fields, and no other."""

from __future__ import annotations

import re
import subprocess
import sys

import pytest

from devserver.endpoints import CONTROL_PREFIX
from devserver.faultoption import parse_option
from devserver.faults import CONNECT, KINDS, fields_at
from devserver.openapi import DESCRIPTION

from .pages import DOCS, code_in, rows

pytestmark = pytest.mark.process

PAGE = DOCS / "devserver.md"
SHORT = {"*response*": ["status", "headers", "json", "body", "body_base64"], "*end*": ["close_notify"]}
VALUES = re.compile(r"\([^)]*\)")


def fault_rows(heading: str) -> list[list[str]]:
    return [row for row in rows(PAGE, heading) if len(row) == 4 and row[0].startswith("`")]


FAULTS = fault_rows("Faults")
BEFORE_HTTP = fault_rows("Faults before HTTP")


def fields_of(cell: str) -> list[str]:
    cell = VALUES.sub("", cell)
    return code_in(cell) + [name for short, names in SHORT.items() if short in cell for name in names]


def test_every_kind_has_a_row() -> None:
    at_connect = {name for name, kind in KINDS.items() if kind.only_at == CONNECT}
    assert [code_in(row[0])[0] for row in FAULTS] == [name for name in KINDS if name not in at_connect]
    assert {code_in(row[0])[0] for row in BEFORE_HTTP} == {"pass", *at_connect}


@pytest.mark.parametrize("row", FAULTS + BEFORE_HTTP, ids=lambda row: row[0])
def test_a_row_has_the_fields_of_its_kind_and_an_example_of_it(row: list[str]) -> None:
    (kind,), fields, (example,) = code_in(row[0]), fields_of(row[1]), code_in(row[3])
    assert sorted(fields) == sorted(KINDS[kind].fields)
    assert KINDS[kind].main in (None, *fields[:1])
    endpoint, script = parse_option(example)
    assert [fault["kind"] for fault in script] == [kind]
    assert (endpoint == CONNECT) == (row in BEFORE_HTTP)


def test_the_fields_of_all_kinds_are_told() -> None:
    common = [code_in(row[0])[0] for row in rows(PAGE, "Faults") if len(row) == 2 and row[0].startswith("`")]
    assert set(common) == set(fields_at("register", "pass"))
    assert set(fields_at(CONNECT, "pass")) == {"times"}


def test_every_option_has_a_row() -> None:
    command = [sys.executable, "-m", "devserver", "--help"]
    usage = subprocess.run(command, capture_output=True, check=True, text=True, timeout=20).stdout
    told = [option for row in rows(PAGE, "Options") for option in code_in(row[0])]
    assert sorted(told) == sorted(set(re.findall(r"(?<=[\s\[,])--[a-z-]+", usage)))


def test_every_control_request_has_a_row() -> None:
    told = [code_in(row[0])[0] for row in rows(PAGE, "Control requests")]
    described = [
        f"{method.upper()} {path}"
        for path, methods in DESCRIPTION["paths"].items()
        for method in methods
        if path.startswith(CONTROL_PREFIX)
    ]
    assert sorted(told) == sorted(described)

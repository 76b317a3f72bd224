"""The metadata of the development server's own distribution."""

import ast
import re
import sys
import tomllib
from typing import Any

import pytest

from .project import ROOT

pytestmark = pytest.mark.process

FOLDER = ROOT / "devserver"
IMPORTED_AS = {"PyJWT": "jwt"}


def pyproject(folder: str = "devserver") -> dict[str, Any]:
    return tomllib.loads((ROOT / folder / "pyproject.toml").read_text())


def required() -> list[str]:
    names = (re.match(r"[\w-]+", wanted) for wanted in pyproject()["project"]["dependencies"])
    return [name[0] for name in names if name is not None]


def test_it_requires_what_it_imports() -> None:
    imported = set()
    for path in FOLDER.glob("*.py"):
        for node in ast.walk(ast.parse(path.read_text())):
            if isinstance(node, ast.Import):
                imported |= {alias.name for alias in node.names}
            elif isinstance(node, ast.ImportFrom) and node.level == 0 and node.module is not None:
                imported.add(node.module)
    foreign = {name.partition(".")[0] for name in imported} - sys.stdlib_module_names - {"devserver"}
    # uvicorn's connections, from which the server's are derived, use it.
    assert foreign | {"h11"} == {IMPORTED_AS.get(name, name).replace("-", "_") for name in required()}


def test_the_checkout_pins_what_it_requires() -> None:
    pinned = (ROOT / "requirements/dev.txt").read_text()
    assert [name for name in required() if not re.search(rf"(?im)^{name}==", pinned)] == []


def pythons(folder: str = "devserver") -> list[str]:
    """The versions that it names, the oldest first."""
    entries = pyproject(folder)["project"]["classifiers"]
    return [entry.rpartition(" ")[2] for entry in entries if " :: 3." in entry]


def test_it_runs_on_the_pythons_that_it_names() -> None:
    told = pyproject()
    oldest = told["project"]["requires-python"].removeprefix(">=")
    assert pythons()[0] == oldest
    assert told["tool"]["ruff"]["target-version"] == f"py{oldest.replace('.', '')}"
    assert pythons()[-1] == pythons(".")[-1]


def test_its_licence_is_that_of_the_project() -> None:
    assert pyproject()["project"]["license"] == pyproject(".")["project"]["license"]
    assert (FOLDER / "LICENSE").read_text() == (ROOT / "LICENSE").read_text()

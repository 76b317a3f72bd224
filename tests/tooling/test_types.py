"""The stub matches the built module, and what uses it type-checks; `tools/types` checks more."""

from __future__ import annotations

import ast
import inspect
import re
import sys
from collections.abc import Iterator
from types import ModuleType
from typing import Any

import pytest

from tessaline import _native, auth

from .project import ROOT, run

pytestmark = pytest.mark.process

STUBS = {
    auth: ROOT / "src/tessaline/auth.pyi",
    _native: ROOT / "src/tessaline/_native.pyi",
}


def complaint_of(*command: str) -> str:
    """The output of a checker, empty if it reports nothing."""
    ended = run(sys.executable, "-m", *command)
    return "" if ended.returncode == 0 else ended.stdout + ended.stderr


def words(text: str | None) -> list[str] | None:
    return text if text is None else text.split()


def documented(body: list[ast.stmt], owner: Any, path: str) -> Iterator[tuple[str, str | None, Any]]:
    """Every class and function of the stub that exists at run time: its place, its docstring, the object."""
    for node in body:
        if isinstance(node, ast.ClassDef | ast.FunctionDef) and hasattr(owner, node.name):
            thing = inspect.getattr_static(owner, node.name)
            where = f"{path}.{node.name}"
            yield where, ast.get_docstring(node), thing
            if isinstance(node, ast.ClassDef):
                yield from documented(node.body, thing, where)


@pytest.mark.parametrize("module", STUBS, ids=lambda module: module.__name__)
def test_the_stub_has_the_docstrings_of_the_module(module: ModuleType) -> None:
    # Editors show the stub's docstrings, `help()` those of the module.
    tree = ast.parse(STUBS[module].read_text())
    assert words(ast.get_docstring(tree)) == words(module.__doc__)
    found = list(documented(tree.body, module, module.__name__))
    assert len(found) > 10
    own = {"__init__", "__new__", "__call__", "__reduce__", "__reduce_ex__"}
    differing = [
        where
        for where, text, thing in found
        if where.rpartition(".")[2] not in own
        and words(text) != words(inspect.getdoc(thing) and thing.__doc__)
    ]
    assert differing == []


def test_no_docstring_of_the_public_surface_is_missing_from_the_stub() -> None:
    tree = ast.parse(STUBS[auth].read_text())
    texts = {where: text for where, text, _ in documented(tree.body, auth, "auth")}
    public = [where for where in texts if not re.search(r"\._", where)]
    assert {"auth.AuthManager.get_token", "auth.AuthError", "auth.notify_era_change"} <= set(public)
    assert [where for where in public if not texts[where]] == []


def test_the_stubs_are_those_of_the_built_modules() -> None:
    modules = [module.__name__ for module in STUBS]
    assert complaint_of("mypy.stubtest", *modules, "--mypy-config-file", "pyproject.toml") == ""


def test_examples_and_a_users_lines_are_accepted_and_refused_as_they_should_be() -> None:
    assert complaint_of("mypy", "src", "examples", "tests/typing") == ""


def test_the_checker_sees_a_call_that_the_stub_does_not_allow(tmp_path: Any) -> None:
    program = tmp_path / "program.py"
    program.write_text("from tessaline.auth import AuthManager\nAuthManager('key').get_tokens()\n")
    complaint = complaint_of("mypy", "--config-file", str(ROOT / "pyproject.toml"), str(program))
    assert '"server_url"' in complaint
    assert '"get_tokens"' in complaint

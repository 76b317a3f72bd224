"""`make tidy` checks again what has changed, and only that."""

import json
import shutil
import sys
from pathlib import Path

import pytest

from .project import ROOT, Ended, run

pytestmark = pytest.mark.process


class Tree:
    """A source, a header, and a clang-tidy that reports `bad` in the source and records each call."""

    def __init__(self, folder: Path) -> None:
        self.header = folder / "used.hpp"
        self.source = folder / "source.cpp"
        self.rules = folder / "rules"
        self._calls = folder / "calls"
        self._program = folder / "tidy"
        self._folder = folder
        self.header.write_text("int used();\n")
        self.source.write_text('#include "used.hpp"\nint good();\n')
        self.rules.write_text("all\n")
        self.compile_with("-O2")
        self._program.write_text(
            "#!/bin/sh\n"
            '[ "$1" = --version ] && { echo 1; exit; }\n'
            f"echo called >>{self._calls}\n"
            'for last; do :; done; ! grep -n bad "$last" /dev/null | sed "s/$/:1: error: planted/" | grep .\n'
        )
        self._program.chmod(0o755)

    def compile_with(self, *options: str) -> None:
        command = ["g++", *options, "-c", "source.cpp", "-o", "source.o"]
        entry = {"directory": str(self._folder), "file": "source.cpp", "arguments": command}
        (self._folder / "compile_commands.json").write_text(json.dumps([entry, entry]))

    def tidy(self, *sources: str) -> Ended:
        folder = str(self._folder)
        options = ["--program", str(self._program), "--scratch", folder, "--tree", folder, "--rules", "rules"]
        tool = str(ROOT / "tools/checks/tidy.py")
        return run(sys.executable, tool, *options, *(sources or ["source.cpp"]), cwd=self._folder)

    def calls(self) -> int:
        return self._calls.read_text().count("called")


@pytest.fixture
def tree(tmp_path: Path) -> Tree:
    return Tree(tmp_path)


def test_a_source_that_passed_is_not_looked_at_again(tree: Tree) -> None:
    first = tree.tidy()
    assert (first.returncode, first.stdout, first.stderr) == (
        0,
        "tidy: 0 complaints of 1 sources; 1 looked at, the others passed before\n",
        "",
    )
    assert tree.tidy().stdout == "tidy: 0 complaints of 1 sources; 0 looked at, the others passed before\n"
    assert tree.calls() == 1


@pytest.mark.parametrize("changed", ["source", "header", "rules", "options"])
def test_a_source_is_looked_at_again_when_something_of_it_changed(changed: str, tree: Tree) -> None:
    tree.tidy()
    if changed == "options":
        tree.compile_with("-O3")
    else:
        path: Path = getattr(tree, changed)
        path.write_text(path.read_text() + "int more();\n")
    assert tree.tidy().returncode == 0
    assert tree.calls() == 2


def test_what_is_complained_of_is_shown_until_it_is_mended(tree: Tree) -> None:
    tree.source.write_text('#include "used.hpp"\nint bad();\n')
    for _ in range(2):
        ended = tree.tidy()
        assert ended.returncode == 1
        assert "error: planted" in ended.stdout
        assert ended.stdout.splitlines()[-1].startswith("tidy: 1 complaints of 1 sources; 1 looked at")
    tree.source.write_text('#include "used.hpp"\n')
    assert tree.tidy().returncode == 0
    assert tree.calls() == 3


def test_a_source_that_no_build_compiles_is_a_complaint(tree: Tree) -> None:
    ended = tree.tidy("source.cpp", "used.hpp")
    assert ended.returncode == 1
    assert "used.hpp: no build compiles it" in ended.stdout


@pytest.mark.skipif(shutil.which("clang-tidy-16") is None, reason="`make tidy` installs what this needs")
def test_the_rules_refuse_a_name_in_another_style(tmp_path: Path) -> None:
    source = tmp_path / "source.cpp"
    source.write_text("int notInStyle();\n")
    rules = f"--config-file={ROOT / '.clang-tidy'}"
    ended = run("clang-tidy-16", rules, str(source), "--", "-std=c++20", cwd=tmp_path)
    assert ended.returncode == 1
    assert "invalid case style for function 'notInStyle'" in ended.stdout

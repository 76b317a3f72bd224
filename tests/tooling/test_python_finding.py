"""Which Python a new `.venv` is made with, and that all places name the same ones."""

from __future__ import annotations

import os
import re
import shutil
import sys
import sysconfig
import tomllib
from pathlib import Path

import pytest

from tests.shared.pythons import NEWEST_TRIED
from tools.wheels import targets

from .project import ROOT, run
from .test_tools import program, shell

pytestmark = pytest.mark.process

# The interpreter with which this environment was made.
REAL = os.path.realpath(vars(sys)["_base_executable"])
REFUSED = "is not a CPython 3.13 or later with its lock (GIL), headers, ssl and ensurepip"

# What another Python would report about itself, before it is asked.
AS_FREE_THREADED = "import sysconfig; sysconfig.get_config_var = {'Py_GIL_DISABLED': 1}.get"
AS_PYPY = "import sys; sys.implementation.name = 'pypy'"
# By then, what reports the location of headers has been asked.
AS_VERSION = (
    "import sys, sysconfig; sysconfig.get_path('include'); sys.version_info = ({}, {}, 0, 'final', 0)"
)


def python_that_says(path: Path, statement: str) -> str:
    answer = f'(echo "{statement}"; cat) | exec {os.path.realpath(sys.executable)} "$@"'
    return str(program(path, answer))


def found_among(tmp_path: Path, *candidates: str) -> str:
    """The one that is found if these are suitable and there are no others."""
    for version in ("3.13", "3.14", "3.15"):
        answer = f"cat >/dev/null; echo found {version}" if version in candidates else "exit 1"
        program(tmp_path / f"bin/python{version}", answer)
    program(tmp_path / "bin/uv", "exit 1")
    for name in ("bash", "cat", "dirname", "env"):
        (tmp_path / "bin" / name).symlink_to(shutil.which(name) or name)
    path = str(tmp_path / "bin")
    nothing = str(tmp_path / "no-pyenv")
    ended = shell("find_python", PATH=path, PYENV_ROOT=nothing, PYTHON="")
    assert ended.returncode == 0, ended.stderr
    return ended.stdout.strip()


def test_the_newest_that_fits_is_taken(tmp_path: Path) -> None:
    assert found_among(tmp_path / "all", "3.13", "3.14", "3.15") == "found 3.15"
    assert found_among(tmp_path / "two", "3.13", "3.14") == "found 3.14"
    assert found_among(tmp_path / "one", "3.13") == "found 3.13"


def test_pyenv_is_asked_for_each_of_them(tmp_path: Path) -> None:
    program(tmp_path / "versions/3.14.1/bin/python3.14", "true")
    program(tmp_path / "versions/3.13.9/bin/python3.13", "true")
    program(tmp_path / "versions/3.12.9/bin/python3.12", "true")
    listed = shell("python_candidates", PYENV_ROOT=str(tmp_path)).stdout.splitlines()
    ours = [line for line in listed if line.startswith(str(tmp_path)) and "*" not in line]
    assert ours == [
        str(tmp_path / "versions/3.14.1/bin/python3.14"),
        str(tmp_path / "versions/3.13.9/bin/python3.13"),
    ]


@pytest.mark.parametrize(
    "statement",
    [AS_FREE_THREADED, AS_PYPY, AS_VERSION.format(3, 12), "raise SystemExit(1)"],
    ids=["free-threaded", "PyPy", "older", "broken"],
)
def test_one_that_does_not_fit_is_named_in_one_line(tmp_path: Path, statement: str) -> None:
    other = python_that_says(tmp_path / "python", statement)
    ended = shell("find_python", PYTHON=other)
    assert ended.returncode == 1
    assert ended.stderr == f"setup: PYTHON={other} {REFUSED}\n"


def test_one_that_is_newer_than_all_that_were_tried_may_be_named(tmp_path: Path) -> None:
    newer = python_that_says(tmp_path / "python", AS_VERSION.format(3, 99))
    ended = shell("find_python", PYTHON=newer)
    assert (ended.returncode, ended.stderr) == (0, "")
    assert Path(ended.stdout.strip()) == Path(REAL)


@pytest.mark.parametrize(("there", "taken"), [(True, "old"), (False, "new")])
def test_an_environment_that_is_made_anew_keeps_its_python(tmp_path: Path, there: bool, taken: str) -> None:
    old, new = (program(tmp_path / name, f"echo Python of the {name}") for name in ("old", "new"))
    circumstances = (
        f"python_behind() {{ {str(there).lower()} && echo {old}; }}; find_python() {{ echo {new}; }}; "
        "is_done() { false; }; logged() { :; }; mark_done() { :; }; find() { :; }"
    )
    made = shell(f"{circumstances}; watched() {{ :; }}; need_venv dev", PYTHON="")
    assert made.stdout == f"setup: creating .venv with Python of the {taken}, {tmp_path / taken}\n"


def test_every_place_names_the_same_pythons() -> None:
    project = tomllib.loads((ROOT / "pyproject.toml").read_text())["project"]
    shown = re.findall(r":: Python :: (3\.\d+)$", "\n".join(project["classifiers"]), re.MULTILINE)
    newest_first = shell('echo "${pythons[*]}"').stdout.split()
    assert newest_first == shown[::-1]
    assert project["requires-python"] == f">={shown[0]}"
    source = (ROOT / "src/tessaline/auth/python/interior.cpp").read_text()
    assert re.findall(r"kNewestTried = (\d+);", source) == [shown[-1].split(".")[1]]
    assert shown[-1] == "{}.{}".format(*NEWEST_TRIED)
    assert list(targets.PYTHONS) == shown


@pytest.mark.parametrize("kind", ["Py_GIL_DISABLED", "PYPY_VERSION"])
def test_a_build_for_another_kind_of_python_ends_in_one_sentence(kind: str) -> None:
    header = ROOT / "src/tessaline/auth/python/interior.hpp"
    paths = [f"-I{sysconfig.get_path('include')}", f"-I{ROOT / 'src'}"]
    ended = run("g++", "-x", "c++", "-E", "-o", os.devnull, f"-D{kind}=1", *paths, str(header))
    assert ended.returncode == 1
    said = re.findall(r"error: #error (.*)$", ended.stderr, re.MULTILINE)
    assert said == ['"tessaline runs on CPython 3.13 or later, with its global interpreter lock, on Linux"']

"""The set-up's choice of tools."""

import os
from pathlib import Path

import pytest

from .project import Ended, run

pytestmark = pytest.mark.process


def shell(script: str, **environment: str) -> Ended:
    program = f"source tools/lib/common.sh; source tools/lib/system.sh; source tools/lib/python.sh; {script}"
    return run("bash", "-c", program, environment=environment)


def program(path: Path, text: str) -> Path:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(f"#!/bin/sh\n{text}\n")
    path.chmod(0o755)
    return path


def test_a_tool_is_taken_only_if_it_runs_is_new_enough_and_is_no_shim(tmp_path: Path) -> None:
    program(tmp_path / "shims/cmake", "echo cmake version 4.1.0")
    program(tmp_path / "broken/cmake", "exit 127")
    program(tmp_path / "old/cmake", "echo cmake version 3.9.6")
    good = program(tmp_path / "good/cmake", "echo cmake version 3.25.1")
    places = [str(tmp_path / name) for name in ("shims", "broken", "old", "good")]
    found = shell("tool cmake 3.25", PATH=os.pathsep.join([*places, os.environ["PATH"]]))
    assert found.stdout.strip() == str(good)


def test_missing_packages_without_root_are_named_with_the_command_that_installs_them() -> None:
    # As for a user who is not root and may not use sudo.
    circumstances = "has_package() { [[ $1 != libb-dev ]]; }; is_root() { false; }; sudo() { false; }"
    ended = shell(f"{circumstances}; need_packages liba-dev libb-dev")
    assert ended.returncode == 1
    assert ended.stderr == (
        "setup: missing system packages: libb-dev; "
        "run: sudo apt-get update && sudo apt-get install --no-install-recommends libb-dev\n"
    )


def test_of_a_compiler_that_a_system_does_not_have_the_next_one_is_taken() -> None:
    knows = "apt-cache() { [[ $2 == *-1[79]* || $2 == libb-dev ]]; }"
    ended = shell(f"{knows}; on_offer clang-16 libclang-rt-18-dev llvm-19 clang-format-16 libb-dev libc-dev")
    assert ended.stdout.split() == [
        "clang-17",
        "libclang-rt-19-dev",
        "llvm-19",
        "clang-format-16",
        "libb-dev",
        "libc-dev",
    ]


def test_an_interrupted_step_is_not_done(tmp_path: Path) -> None:
    mark = tmp_path / "mark"
    assert shell(f"is_done {mark} key").returncode == 1
    assert shell(f"mark_done {mark} key && is_done {mark} key").returncode == 0
    assert shell(f"is_done {mark} other").returncode == 1

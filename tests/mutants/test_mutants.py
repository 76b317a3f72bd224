"""The tool itself: a fault is planted where the list says, and is found or survives."""

from __future__ import annotations

import os
import sys
from pathlib import Path

import pytest

from tests.tooling.project import ROOT, run

from .listed import Mutant, locate
from .tree import VARIABLE, woven

pytestmark = pytest.mark.process


def test_a_landmark_says_which_of_two_texts_is_meant(tmp_path: Path) -> None:
    text = "int one() {\n  return 1;\n}\n\nint two() {\n  return 1;\n}\n"
    (tmp_path / "moved.cpp").write_text(text)
    assert locate(Mutant("gone.cpp", "", "return 1;", "", ()), tmp_path) is None
    assert locate(Mutant("gone.cpp", "int one()", "return 2;", "", ()), tmp_path) is None
    mutant = Mutant("gone.cpp", "int two()", "return 1;", "return 2;", ())
    place = locate(mutant, tmp_path)
    assert place is not None
    asked = f"{{ if (::mutants::is({mutant.number}UL)) {{ return 2; }} else {{ return 1; }} }}"
    assert woven(text, [(mutant, place)], 0, len(text)) == asked.join(text.rsplit("return 1;", 1))


def test_a_fault_that_a_test_sees_is_found_and_another_survives(tmp_path: Path) -> None:
    planted = tmp_path / "test_planted.py"
    planted.write_text(f"import os\ndef test(): assert os.environ['{VARIABLE}'] != '1'\n")
    test = os.path.relpath(planted, ROOT)
    runs = f"[runs.Run(({test!r},), 1), runs.Run(({test!r},), 2)]"
    tell = "lambda run, met: not print('run', run.number, met.rpartition('::')[2])"
    ended = run(sys.executable, "-c", f"from tests.mutants import runs; runs.run_all({runs}, {tell})")
    assert {line for line in ended.stdout.splitlines() if line.startswith("run")} == {"run 1 test", "run 2 "}

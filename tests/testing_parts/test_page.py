"""The page on testing: its examples run."""

from __future__ import annotations

from pathlib import Path

import pytest

from tessaline import testing
from tessaline.testing import FakeService, fixtures
from tests.docs.pages import DOCS, blocks, code_blocks, code_in, rows, run
from tests.testing_parts.runs import PLUGIN, outcome_of

pytestmark = pytest.mark.process

PAGE = DOCS / "testing.md"


def test_the_block_without_pytest_runs() -> None:
    run(code_blocks(PAGE)[0], {})


def test_the_one_with_pytest_passes_with_the_option_that_is_shown(tmp_path: Path) -> None:
    _, tests = code_blocks(PAGE)
    (option,) = [block for block in blocks(PAGE) if block.language == "ini"]
    said = outcome_of(tmp_path, tests.text, "-p", PLUGIN, ini=option.text)
    assert "1 passed" in said, said


def test_it_tells_of_every_name_and_fixture() -> None:
    table = [line for line in PAGE.read_text().split("\n## ")[0].splitlines() if line.startswith("| `")]
    told = {code.split("(")[0] for line in table for code in code_in(line.split("|")[1])}
    assert told == set(testing.__all__)
    shown = [code_in(row[0])[0] for row in rows(PAGE, "With pytest")]
    assert sorted(shown) == sorted(name for name in vars(fixtures) if name.startswith("tessaline_"))


def test_the_switches_are_there() -> None:
    service = FakeService()
    for (code,) in (code_in(row[0]) for row in rows(PAGE, "The service's switches")):
        assert hasattr(service, code.split(" ")[0].split(".")[0].split("(")[0]), code

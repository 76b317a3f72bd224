"""The data behind the figures of `make coverage`."""

from typing import Any

from tests.coverage.tally import lines_in_ranges, native_tally, python_tally


def line(number: int, count: int, *branches: int, **more: Any) -> dict[str, Any]:
    taken = [{"count": branch} for branch in branches]
    return {"line_number": number, "count": count, "function_name": "f()", "branches": taken, **more}


def test_lines_and_branches_that_were_not_run_are_counted_and_named() -> None:
    lines = [line(1, 3, 1, 0), line(2, 0), line(3, 0, 0), line(5, 1), line(9, 0, **{"gcovr/noncode": True})]
    tally = native_tally({"files": [{"file": "a.cpp", "lines": lines}]})
    assert tally.figure() == "50.00 % of 4 lines, 33.33 % of 3 branches"
    assert tally.unreached == {("a.cpp", "f()"): [2, 3]}


def test_a_template_line_counts_once_and_one_instance_is_enough() -> None:
    lines = [line(1, 0, 0, 0), line(1, 2, 1, 0), line(2, 0), line(2, 0)]
    tally = native_tally({"files": [{"file": "a.hpp", "lines": lines}]})
    assert tally.figure() == "50.00 % of 2 lines, 50.00 % of 2 branches"
    assert tally.unreached == {("a.hpp", "f()"): [2]}


def test_python_is_counted_by_its_own_tool() -> None:
    totals = {"num_statements": 8, "covered_lines": 6, "num_branches": 2, "covered_branches": 2}
    functions = {"f": {"missing_lines": [3, 4]}, "g": {"missing_lines": []}}
    tally = python_tally({"totals": totals, "files": {"a.py": {"functions": functions}}})
    assert tally.figure() == "75.00 % of 8 lines, 100.00 % of 2 branches"
    assert tally.unreached == {("a.py", "f"): [3, 4]}


def test_a_run_that_measured_nothing_reached_nothing() -> None:
    assert native_tally({"files": []}).line_percent == 0.0


def test_lines_are_told_as_ranges() -> None:
    assert lines_in_ranges([9, 1, 2, 3, 7]) == "1-3,7,9"

"""The result of `make sanitize`: prints the problems, then one line of figures.

Arguments: the folders of results.
"""

from __future__ import annotations

import json
import re
import sys
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path

REPORT = re.compile(
    r"^(?:==\d+==ERROR: .*|WARNING: ThreadSanitizer: .*|.*: runtime error: .*)$", re.MULTILINE
)
SUPPRESSED = re.compile(r"^\s*(\d+)\s+(?:\d+\s+)?(\w+:\S+)$", re.MULTILINE)
NATIVE_TESTS = Path(__file__).resolve().parents[2] / "tests" / "native"
SUITES = sorted({path.parent.name for path in NATIVE_TESTS.glob("*/*_test.cpp")})


@dataclass
class Result:
    name: str
    native: int = 0
    python: int = 0
    skipped: int = 0
    processes: int = 0
    reports: int = 0
    suppressed: Counter[str] = field(default_factory=Counter)
    wrong: list[str] = field(default_factory=list)

    def line(self) -> str:
        by_name = ", ".join(f"{count} x {name}" for name, count in sorted(self.suppressed.items())) or "none"
        return (
            f"{self.name}: {self.native} native + {self.python} Python tests passed, {self.skipped} skipped, "
            f"{self.processes} processes with the instrumented component, "
            f"reports found: {self.reports}, suppressed by name: {by_name}"
        )


def read_native(folder: Path, result: Result) -> None:
    for suite in SUITES:
        outcome = folder / f"{suite}_tests.native.json"
        if not outcome.exists():
            result.wrong.append(f"{suite}_tests did not reach its end")
            continue
        for group in json.loads(outcome.read_text())["testsuites"]:
            for test in group["testsuite"]:
                if test.get("failures"):
                    result.wrong.append(f"{suite}_tests: {group['name']}.{test['name']} failed")
                elif test["result"] == "SKIPPED":
                    result.skipped += 1
                else:
                    result.native += 1


def read_python(folder: Path, result: Result) -> None:
    outcome = folder / "python.json"
    if not outcome.exists():
        result.wrong.append("the Python tests did not reach their end")
        return
    told = json.loads(outcome.read_text())
    result.python = told["outcomes"].get("passed", 0)
    result.skipped += told["outcomes"].get("skipped", 0)
    if told["exit"] != 0 or result.python == 0:
        result.wrong.append(f"pytest ended with {told['exit']}: {told['outcomes']}")


def read_imports(folder: Path, result: Result) -> None:
    log = folder / "imports"
    seen = [line.split(" ", 2) for line in log.read_text().splitlines()] if log.exists() else []
    result.processes = len({process for process, what, _ in seen if what == "imports"})
    result.wrong += [f"process {process} found {file}" for process, what, file in seen if what == "refused"]


def read_reports(folder: Path, result: Result) -> None:
    for path in sorted(folder.glob("report.*")):
        text = path.read_text(errors="replace")
        found = len(REPORT.findall(text))
        result.reports += found
        for count, name in SUPPRESSED.findall(text):
            result.suppressed[name] += int(count)
        if found:
            result.wrong.append(f"{path}:\n{text}")


def read(folder: Path) -> Result:
    result = Result(folder.parent.name.removeprefix("sanitize-"))
    for reader in (read_native, read_python, read_imports, read_reports):
        reader(folder, result)
    return result


def main() -> int:
    results = [read(Path(folder)) for folder in sys.argv[1:]]
    wrong = [f"{result.name}: {problem}" for result in results for problem in result.wrong]
    for problem in wrong:
        print(problem, file=sys.stderr)
    verdict = "FAILED" if wrong else "sanitizers"
    print(f"{verdict}: " + "; ".join(result.line() for result in results), flush=True)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())

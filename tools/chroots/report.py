"""report.py FOLDER RESULT...: writes the results of visits to FOLDER/systems.json, the table of all systems
to FOLDER/where-it-runs.md, and prints that table.
"""

import json
import re
import sys
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from typing import Any

Result = dict[str, Any]

PAGE = "where-it-runs.md"


@dataclass(frozen=True)
class Table:
    """One table of the page, and the file that it is made from.

    key: a later result replaces an earlier one with the same key.
    """

    name: str
    columns: tuple[str, ...]
    row: Callable[[Result], tuple[str, ...]]
    key: Callable[[Result], tuple[Any, ...]]

    @property
    def facts(self) -> str:
        return f"{self.name}.json"

    @property
    def begin(self) -> str:
        return f"<!-- {self.name} -->\n"

    @property
    def end(self) -> str:
        return f"<!-- end of {self.name} -->\n"

    def text(self, results: list[Result]) -> str:
        rows = [self.columns, ("---",) * len(self.columns), *map(self.row, results)]
        return "".join(f"| {' | '.join(cells)} |\n" for cells in rows)

    def put_into(self, page: str, text: str) -> str:
        before, begin, rest = page.partition(self.begin)
        _, end, after = rest.partition(self.end)
        if not begin or not end:
            sys.exit("report: the page has no place for the table")
        return f"{before}{begin}\n{text}\n{end}{after}"


def key(result: Result) -> tuple[str, tuple[int, ...]]:
    numbers = re.findall(r"\d+", str(result["python"]))
    return str(result["system"]), tuple(int(number) for number in numbers[:2])


def step(result: Result, name: str) -> str:
    return str(result["steps"].get(name, {}).get("outcome", "not run"))


def demo(result: Result) -> str:
    outcome = step(result, "build")
    return f"build {outcome}" if outcome != "ok" else step(result, "demo")


def tests(result: Result) -> str:
    text = passed(result["tests"], step(result, "test"))
    return f"{text} (a sample)" if result["sample"] else text


def passed(found: dict[str, int], outcome: str) -> str:
    failed = found.get("failed", 0) + found.get("error", 0) + found.get("native failed", 0)
    text = f"{found.get('passed', 0) + found.get('native', 0) - found.get('native failed', 0):,}"
    text += f", {found['skipped']} skipped" if found.get("skipped") else ""
    text += f", **{failed} failed**" if failed else ""
    return f"**{outcome}**" if outcome != "ok" and not failed else text


def seconds(result: Result) -> int:
    return sum(taken["seconds"] for taken in result["steps"].values())


def row(result: Result) -> tuple[str, ...]:
    return (
        f"{result['called']}, {result['machine']}",
        str(result["python"]),
        str(result["libcurl"]),
        str(result["openssl"]),
        str(result["compiler"]),
        demo(result),
        tests(result),
        f"{seconds(result) / 60:.0f}",
        str(result["date"]),
    )


SYSTEMS = Table(
    "systems",
    ("system", "Python", "libcurl", "OpenSSL", "compiler", "demo", "tests", "minutes", "on"),
    row,
    key,
)


def renew(table: Table, folder: Path, files: list[Path]) -> None:
    facts, page = folder / table.facts, folder / PAGE
    results = {table.key(result): result for result in json.loads(facts.read_text())}
    for file in files:
        result = json.loads(file.read_text())
        results[table.key(result)] = result
    ordered = [results[name] for name in sorted(results)]
    facts.write_text(json.dumps(ordered, indent=2) + "\n")
    text = table.text(ordered)
    page.write_text(table.put_into(page.read_text(), text))
    print(text, end="")


if __name__ == "__main__":
    renew(SYSTEMS, Path(sys.argv[1]), [Path(name) for name in sys.argv[2:]])

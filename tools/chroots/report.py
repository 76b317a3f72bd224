"""report.py FOLDER RESULT...: puts what visits found into FOLDER/systems.json, the table of all systems into
FOLDER/where-it-runs.md, and prints that table.
"""

import json
import re
import sys
from pathlib import Path
from typing import Any

Result = dict[str, Any]

BEGIN, END = "<!-- systems -->\n", "<!-- end of systems -->\n"
COLUMNS = ("system", "Python", "libcurl", "OpenSSL", "compiler", "demo", "tests", "minutes", "on")


def key(result: Result) -> tuple[str, tuple[int, ...]]:
    numbers = re.findall(r"\d+", str(result["python"]))
    return str(result["system"]), tuple(int(number) for number in numbers[:2])


def step(result: Result, name: str) -> str:
    return str(result["steps"].get(name, {}).get("outcome", "not run"))


def demo(result: Result) -> str:
    outcome = step(result, "build")
    return f"build {outcome}" if outcome != "ok" else step(result, "demo")


def tests(result: Result) -> str:
    found, outcome = result["tests"], step(result, "test")
    failed = found.get("failed", 0) + found.get("error", 0) + found.get("native failed", 0)
    text = f"{found.get('passed', 0) + found.get('native', 0) - found.get('native failed', 0):,}"
    text += f", {found['skipped']} skipped" if found.get("skipped") else ""
    text += f", **{failed} failed**" if failed else ""
    if outcome != "ok" and not failed:
        text = f"**{outcome}**"
    return f"{text} (a sample)" if result["sample"] else text


def row(result: Result) -> tuple[str, ...]:
    seconds = sum(taken["seconds"] for taken in result["steps"].values())
    return (
        f"{result['called']}, {result['machine']}",
        str(result["python"]),
        str(result["libcurl"]),
        str(result["openssl"]),
        str(result["compiler"]),
        demo(result),
        tests(result),
        f"{seconds / 60:.0f}",
        str(result["date"]),
    )


def table(results: list[Result]) -> str:
    rows = [COLUMNS, ("---",) * len(COLUMNS), *(row(result) for result in results)]
    return "".join(f"| {' | '.join(cells)} |\n" for cells in rows)


def with_table(page: str, text: str) -> str:
    before, begin, rest = page.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not begin or not end:
        sys.exit("report: the page has no place for the table")
    return f"{before}{begin}\n{text}\n{end}{after}"


def main(folder: Path, files: list[Path]) -> None:
    facts, page = folder / "systems.json", folder / "where-it-runs.md"
    results = {key(result): result for result in json.loads(facts.read_text())}
    for file in files:
        result = json.loads(file.read_text())
        results[key(result)] = result
    ordered = [results[name] for name in sorted(results)]
    facts.write_text(json.dumps(ordered, indent=2) + "\n")
    text = table(ordered)
    page.write_text(with_table(page.read_text(), text))
    print(text, end="")


if __name__ == "__main__":
    main(Path(sys.argv[1]), [Path(name) for name in sys.argv[2:]])

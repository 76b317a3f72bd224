"""Runs clang-tidy over every source of a build, except those that have passed unchanged.

A source has passed if clang-tidy reported nothing, and neither it, nor its includes, nor its options, nor the
rules have changed since. build/tidy/passed stores that by content.
"""

import argparse
import functools
import hashlib
import json
import os
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

COMPLAINT = re.compile(r"^\S+:\d+:\d+: (?:warning|error): .*$|^error: .*$", re.MULTILINE)


@dataclass(frozen=True)
class Source:
    path: str
    folder: str
    command: tuple[str, ...]


@functools.cache
def digest(path: str) -> str:
    try:
        return hashlib.sha256(Path(path).read_bytes()).hexdigest()
    except OSError:
        return "missing"


def said(*command: str, cwd: str | None = None) -> str:
    return subprocess.run(command, cwd=cwd, check=True, capture_output=True, text=True).stdout


def compiled(trees: list[Path]) -> dict[str, Source]:
    """Every source by its path. One that several targets or trees compile is included once."""
    found: dict[str, Source] = {}
    for tree in trees:
        for entry in json.loads((tree / "compile_commands.json").read_text()):
            path = os.path.realpath(os.path.join(entry["directory"], entry["file"]))
            command = tuple(entry.get("arguments") or shlex.split(entry["command"]))
            found.setdefault(path, Source(path, entry["directory"], command))
    return found


def inputs(source: Source) -> list[str]:
    """All files that the compiler reads for it, by absolute path."""
    command = [part for part in source.command if part != "-c"]
    if "-o" in command:
        at = command.index("-o")
        del command[at : at + 2]
    rule = said(*command, "-M", "-MT", "it", cwd=source.folder)
    names = rule.removeprefix("it:").replace("\\\n", " ").split()
    return sorted({os.path.realpath(os.path.join(source.folder, name)) for name in names})


class Tidy:
    def __init__(self, program: str, scratch: Path, rules: str) -> None:
        self._program = program
        self._scratch = scratch
        self._rules = rules
        self._passed = scratch / "passed"
        self._passed.mkdir(parents=True, exist_ok=True)
        self._runner = hashlib.sha256(said(program, "--version").encode()).hexdigest()

    def has_passed(self, source: Source) -> bool:
        try:
            record = json.loads(self._record(source).read_text())
        except (OSError, ValueError):
            return False
        return record["how"] == self._how(source) and all(
            digest(path) == before for path, before in record["inputs"].items()
        )

    def complaints(self, source: Source) -> str:
        """The output of clang-tidy for it; empty if it passes."""
        record = self._record(source)
        record.unlink(missing_ok=True)
        # Hashed first, so that edits during the run count as changes.
        seen = {path: digest(path) for path in inputs(source)}
        command = [self._program, "-p", str(self._scratch), "--quiet", source.path]
        ended = subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL)
        if ended.returncode == 0 and not COMPLAINT.search(ended.stdout):
            record.write_text(json.dumps({"how": self._how(source), "inputs": seen}))
            return ""
        # stderr only has the number of suppressed warnings.
        return ended.stdout or ended.stderr

    def _how(self, source: Source) -> str:
        return " ".join([self._runner, self._rules, *source.command])

    def _record(self, source: Source) -> Path:
        return self._passed / hashlib.sha256(source.path.encode()).hexdigest()


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True, help="clang-tidy")
    parser.add_argument("--scratch", type=Path, required=True, help="the folder of what is remembered")
    parser.add_argument("--tree", type=Path, action="append", required=True, help="a configured build")
    parser.add_argument("--rules", action="append", default=[], help="a file of rules")
    parser.add_argument("sources", nargs="+")
    options = parser.parse_args()

    known = compiled(options.tree)
    rules = hashlib.sha256("".join(map(digest, options.rules)).encode()).hexdigest()
    tidy = Tidy(options.program, options.scratch, rules)
    commands = [
        {"directory": source.folder, "file": source.path, "arguments": source.command}
        for source in known.values()
    ]
    (options.scratch / "compile_commands.json").write_text(json.dumps(commands))

    wanted = [os.path.realpath(name) for name in options.sources]
    uncompiled = [path for path in wanted if path not in known]
    for path in uncompiled:
        print(f"{os.path.relpath(path)}: no build compiles it")
    open_ = [known[path] for path in wanted if path in known and not tidy.has_passed(known[path])]

    found: set[str] = set()
    with ThreadPoolExecutor(int(os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2"))) as pool:
        for text in pool.map(tidy.complaints, open_):
            if text:
                print(text, flush=True)
                # A header's warning is repeated for every source that includes it.
                found.update(COMPLAINT.findall(text) or [text])
    print(
        f"tidy: {len(found) + len(uncompiled)} complaints of {len(wanted)} sources; "
        f"{len(open_)} looked at, the others passed before"
    )
    return 1 if found or uncompiled else 0


if __name__ == "__main__":
    sys.exit(main())

"""Tests a wheel in a bare system, and writes the result.

python -m tools.wheels.trial SYSTEM ROOT PYTHON WHEEL RESULT

SYSTEM: its name. ROOT: its root, with this project's tests and its build/wheel-trials mounted;
files written there are kept. PYTHON: that system's.
"""

from __future__ import annotations

import datetime
import json
import os
import platform
import re
import shutil
import subprocess
import sys
import time
from collections.abc import Callable, Iterator, Mapping, Sequence
from contextlib import contextmanager
from pathlib import Path
from typing import Any

from tools.chroots.facts import counts

from . import login

PROJECT = Path(__file__).resolve().parents[2]
SCRATCH = PROJECT / "build/wheel-trials"
VENV = "/srv/venv"
PYTHON = f"{VENV}/bin/python"
PIP = (PYTHON, "-m", "pip", "--no-input", "--disable-pip-version-check", "install", "--no-index")
CLEAN = {
    "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
    "LC_ALL": "C.UTF-8",
    "HOME": "/srv",
    # As Python does at the first import: only imported modules are compiled.
    "PIP_NO_COMPILE": "1",
}
ENDS = [f"tests/process/test_{name}.py" for name in ("exit", "slow_exit", "fork", "fork_while", "unclosed")]
# An emulated program takes seconds to start.
SAMPLE = [
    "tests/process/test_exit.py::test_a_program_that_calls_exit",
    "tests/process/test_exit.py::test_a_program_that_is_ended_in_the_middle_of_a_call",
    "tests/process/test_slow_exit.py",
]
# How often each scenario runs, and how much slower emulated programs are; settable for busy machines.
RUNS, RUNS_EMULATED = 3, 1
SLOWER_EMULATED = 10
SECONDS = 3600
# Runs the interpreter in the root, in the same working directory.
INTERPRETER = '#!/bin/sh\nexec chroot {root} env -C "$PWD" {python} "$@"\n'


class Failed(Exception):
    """With the last lines of output."""


def inside(root: Path, *command: str) -> list[str]:
    return ["chroot", str(root), "env", "-i", *(f"{name}={value}" for name, value in CLEAN.items()), *command]


class Trial:
    """machine: the wheel's. Each step adds to `found`."""

    def __init__(self, root: Path, python: str, wheel: Path, log: Path) -> None:
        self._root, self._python, self._wheel, self._log = root, python, wheel, log
        self.machine = machine_of(wheel)
        release = (root / "etc/os-release").read_text()
        self.found: dict[str, Any] = {
            "called": re.findall(r'^PRETTY_NAME="(.*)"', release, re.MULTILINE)[0],
            "machine": self.machine,
            "wheel": wheel.name,
        }

    def run(self, command: Sequence[str], environment: Mapping[str, str] | None = None) -> str:
        """Its output, which is also logged."""
        with self._log.open("a+") as file:
            print("$", *command, file=file, flush=True)
            began = file.tell()
            done = subprocess.run(
                command, env=environment, stdin=subprocess.DEVNULL, stdout=file, stderr=file, timeout=SECONDS
            )
            file.seek(began)
            said = file.read()
        if done.returncode != 0:
            raise Failed(said[-3000:])
        return said

    def inside(self, *command: str) -> str:
        return self.run(inside(self._root, *command))

    def install(self) -> None:
        shutil.copy(self._wheel, self._root / "srv")
        self.inside(self._python, "-m", "venv", VENV)
        self.inside(*PIP, f"/srv/{self._wheel.name}")
        self.inside(PYTHON, "-I", "-c", "import tessaline.auth, tessaline._native")
        said = self.inside(PYTHON, "-I", "-m", "tessaline", "--version")
        if not said.rstrip().endswith("(bundled)"):
            raise Failed(f"it says of itself: {said}")

    def log_in(self) -> None:
        try:
            facts = login.log_in(inside(self._root, PYTHON), self._trust)
        except login.LoginError as error:
            raise Failed(str(error)) from error
        self.found |= {"python": facts.python, "libc": facts.libc}

    def _trust(self, authority: Path) -> Mapping[str, str]:
        """As an administrator adds a CA."""
        shutil.copy(authority, self._root / "usr/local/share/ca-certificates/tried.crt")
        self.inside("update-ca-certificates")
        return {}

    def end(self) -> None:
        """The tests and their servers run outside, the programs that exit and fork inside."""
        with scratch(self._root.name) as folder:
            interpreter, results = folder / "python", folder / "results"
            interpreter.write_text(INTERPRETER.format(root=self._root, python=PYTHON))
            interpreter.chmod(0o755)
            if (said := self.run([str(interpreter), "-c", "import sys; print(sys.prefix)"])) != f"{VENV}\n":
                raise Failed(f"the programs would be run by that of {said}")
            own = self.machine == platform.machine()
            environment = {
                **CLEAN,
                "TMPDIR": str(folder),
                "TESSALINE_EXIT_PYTHON": str(interpreter),
                "TESSALINE_EXIT_RUNS": str(RUNS if own else RUNS_EMULATED),
                "TESSALINE_SLOWER": os.environ.get("TESSALINE_SLOWER") or str(1 if own else SLOWER_EMULATED),
                "TESSALINE_EXIT_RESULTS": str(results),
            }
            tests = ENDS if own else SAMPLE
            try:
                said = self.run(
                    [sys.executable, "-m", "pytest", "-p", "no:cacheprovider", *tests], environment
                )
            except Failed as failure:
                self.found["tests"] = counts(str(failure))
                raise
            told = [json.loads(line) for line in results.read_text().splitlines()]
        self.found |= {"tests": counts(said), "runs": sum(one[1] for one in told), "sample": not own}


@contextmanager
def scratch(name: str) -> Iterator[Path]:
    folder = SCRATCH / name
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    try:
        yield folder
    finally:
        shutil.rmtree(folder)


def machine_of(wheel: Path) -> str:
    (machine,) = re.findall("x86_64$|aarch64$", wheel.stem)
    return str(machine)


def take(steps: Mapping[str, Callable[[], None]]) -> dict[str, Any]:
    """The steps up to the first failure."""
    taken: dict[str, Any] = {}
    for name, step in steps.items():
        print(f"{name} ... ", end="", flush=True)
        began, outcome, said = time.monotonic(), "ok", ""
        try:
            step()
        except Failed as failure:
            outcome, said = "failed", str(failure)
        except subprocess.TimeoutExpired as late:
            outcome, said = "late", str(late)
        seconds = round(time.monotonic() - began)
        print(f"{outcome} after {seconds} s\n{said}", end="", flush=True)
        taken[name] = {"outcome": outcome, "seconds": seconds}
        if outcome != "ok":
            break
    return taken


def main(system: str, root: Path, python: str, wheel: Path, result: Path) -> int:
    log = PROJECT / f"build/logs/wheel-trial-{system}-{wheel.stem}.log"
    log.parent.mkdir(parents=True, exist_ok=True)
    log.unlink(missing_ok=True)
    trial = Trial(root, python, wheel, log)
    steps = take({"install": trial.install, "login": trial.log_in, "ends": trial.end})
    told = {"system": system, "date": datetime.date.today().isoformat(), **trial.found, "steps": steps}
    result.parent.mkdir(parents=True, exist_ok=True)
    result.write_text(json.dumps(told))
    return 0 if all(step["outcome"] == "ok" for step in steps.values()) else 1


if __name__ == "__main__":
    name, at, interpreter, file, told_in = sys.argv[1:]
    os.chdir(PROJECT)
    sys.exit(main(name, Path(at), interpreter, Path(file), Path(told_in)))

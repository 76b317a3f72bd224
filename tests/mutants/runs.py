"""Runs of the tests: one pytest collects them all, and a child for each run continues with some of them."""

from __future__ import annotations

import contextlib
import os
import re
import signal
import sys
import time
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from pathlib import Path

import pytest

from .listed import ROOT
from .tree import BUILD, PACKAGE, VARIABLE

AT_ONCE = 2
SECONDS = 60
# All files that contain mutants.
FAULTLESS_SECONDS = 900
HANGS = "it hangs"
# pytest captures output in a file, which processes cannot share.
OPTIONS = ["-x", "-q", "-s", "-p", "no:cacheprovider"]
FAILED = re.compile(r"^(?:FAILED|ERROR) (\S+)", re.MULTILINE)


@dataclass(frozen=True)
class Run:
    tests: tuple[str, ...]
    number: int = 0


def run_all(runs: list[Run], tell: Callable[[Run, str], bool]) -> None:
    """Reports the result of each run: the first test that fails, or another error; empty if all pass.
    Ends when `tell` returns False.
    """
    parent, code = os.getpid(), 3
    try:
        os.environ["PYTHONPATH"] = os.pathsep.join((str(PACKAGE), str(ROOT)))
        os.environ["HYPOTHESIS_STORAGE_DIRECTORY"] = str(BUILD / "hypothesis")
        sys.path.insert(0, str(PACKAGE))
        sys.argv = ["pytest", *OPTIONS, *sorted({test for run in runs for test in run.tests})]
        code = int(pytest.main(sys.argv[1:], plugins=[_Collected(runs, tell)]))
    finally:
        if os.getpid() != parent:
            sys.stdout.flush()
            os._exit(code)


class _Collected:
    def __init__(self, runs: list[Run], tell: Callable[[Run, str], bool]) -> None:
        self.runs, self.tell = runs, tell

    @pytest.hookimpl(tryfirst=True)
    def pytest_runtestloop(self, session: pytest.Session) -> bool | None:
        for run, met in _in_children(self.runs if not session.testsfailed else []):
            if met is None:
                os.environ[VARIABLE] = str(run.number)
                file_of = {item: os.path.relpath(item.path, ROOT) for item in session.items}
                chosen = [item for item in session.items if file_of[item] in run.tests]
                session.items = sorted(chosen, key=lambda item: run.tests.index(file_of[item]))
                return None
            if not self.tell(run, met):
                break
        return True


def _in_children(waiting: list[Run]) -> Iterator[tuple[Run, str | None]]:
    """In the child for a run, the run and None; in the parent each run with its result."""
    waiting = waiting[::-1]
    running: dict[int, tuple[Run, float, Path]] = {}
    try:
        while waiting or running:
            while waiting and len(running) < AT_ONCE:
                run = waiting.pop()
                log = BUILD / "logs" / f"{run.number}-{Path(run.tests[0]).stem}"
                log.parent.mkdir(parents=True, exist_ok=True)
                sys.stdout.flush()
                if (pid := os.fork()) == 0:
                    running.clear()
                    # A separate process group, so that what it starts ends with it.
                    os.setsid()
                    output = os.open(log, os.O_WRONLY | os.O_CREAT | os.O_TRUNC)
                    os.dup2(output, 1)
                    os.dup2(output, 2)
                    yield run, None
                    return
                seconds = SECONDS if run.number else FAULTLESS_SECONDS
                running[pid] = run, time.monotonic() + seconds, log
            time.sleep(0.02)
            for pid, (run, deadline, log) in list(running.items()):
                ended, status = os.waitpid(pid, os.WNOHANG)
                if ended or time.monotonic() > deadline:
                    del running[pid]
                    _end(pid, is_running=not ended)
                    yield run, _met(status, log) if ended else HANGS
    finally:
        for pid in running:
            _end(pid, is_running=True)


def _end(pid: int, *, is_running: bool) -> None:
    with contextlib.suppress(ProcessLookupError):
        os.killpg(pid, signal.SIGKILL)
    if is_running:
        os.waitpid(pid, 0)


def _met(status: int, log: Path) -> str:
    if status == 0:
        return ""
    failed = FAILED.search(log.read_text(errors="replace"))
    return failed[1] if failed else f"status {os.waitstatus_to_exitcode(status)}, see {log.relative_to(ROOT)}"

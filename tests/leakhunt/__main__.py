"""Runs the hunt over the tests in the arguments, by default all, distributed over processes."""

from __future__ import annotations

import argparse
import json
import os
import signal
import subprocess
import sys
import tempfile
import time
from collections import Counter
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]

# Makes readings reproducible: no thread caches freed blocks, and hashes are the same in every run.
SURROUNDINGS = {
    "GLIBC_TUNABLES": "glibc.malloc.tcache_count=0",
    "PYTHONHASHSEED": "0",
    "TESSALINE_STRESS_SECONDS": "5",
}
# Warnings are collected until a test with all its repetitions is over, so they would grow.
OPTIONS = (
    "-q",
    "-p",
    "no:cacheprovider",
    "-p",
    "no:warnings",
    "-p",
    "no:canary.plugin",
    "-p",
    "tests.leakhunt.plugin",
)
# Each repetition gets the time-out of a single test.
TIMEOUTS = ("--timeout", "120", "-o", "timeout_func_only=true")


def start(folder: Path, number: int, arguments: list[str]) -> subprocess.Popen[bytes]:
    own = ["--leakhunt-shared", str(folder), "--leakhunt-result", str(folder / f"result-{number}")]
    return subprocess.Popen(
        [sys.executable, "-m", "pytest", *OPTIONS, *TIMEOUTS, *own, *arguments],
        cwd=ROOT,
        env=os.environ | SURROUNDINGS,
        stdin=subprocess.DEVNULL,
    )


def main() -> int:
    parser = argparse.ArgumentParser(prog="leaks")
    parser.add_argument("--at-once", type=int, default=2)
    chosen, arguments = parser.parse_known_args()
    # A shell makes background jobs ignore Ctrl-C, and so would the tests that send it to themselves.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    begun = time.monotonic()
    counts: Counter[str] = Counter()
    elsewhere = 0
    with tempfile.TemporaryDirectory() as folder:
        running = [start(Path(folder), number, arguments) for number in range(chosen.at_once)]
        codes = [process.wait() for process in running]
        for result in Path(folder).glob("result-*"):
            told = json.loads(result.read_text())
            elsewhere = told.pop("elsewhere")
            counts.update(told)
    minutes, seconds = divmod(round(time.monotonic() - begun), 60)
    print(
        f"leaks: {counts['repeated']} tests repeated, {counts['repetitions']} repetitions, "
        f"{elsewhere} that happen in other processes left out, {counts['leaking']} leaks, "
        f"{counts['failed']} failed otherwise, {minutes} min {seconds} s"
    )
    return 0 if counts["repeated"] and not any(codes) else 1


if __name__ == "__main__":
    sys.exit(main())

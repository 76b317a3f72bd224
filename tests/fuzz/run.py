"""Runs the targets under libFuzzer, as many at once as there are processors, and sums up.

python -m tests.fuzz.run [--seconds N] [--seed N] [--keep] [target ...]
"""

from __future__ import annotations

import argparse
import os
import re
import secrets
import shutil
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

HERE = Path(__file__).parent
ROOT = HERE.parents[1]
TREE = ROOT / "build/fuzz"
FOUND = TREE / "found"
CRASHES = TREE / "crashes"

PROCESSORS = os.process_cpu_count() or 2
LONGEST = 2048
# Allowed beyond the time limit: the start, and a slow last input.
GRACE = 180
PYTHON_TARGETS = {path.stem for path in (HERE / "targets").glob("[a-z]*.py")}
NATIVE_TARGETS = {path.stem for path in HERE.glob("*.cpp")} - {"replay", "python_target", "fuzz_rooms"}
TARGETS = sorted(PYTHON_TARGETS | NATIVE_TARGETS)
DICTIONARIES = {
    "challenge_message": "json",
    "chunked_body": "http",
    "exchange": "http",
    "key_text": "key",
    "redirect": "url",
    "reference": "url",
    "response_head": "http",
    "server_url": "url",
    "url": "url",
}


@dataclass
class Result:
    target: str
    code: int
    executions: int
    new: int
    edges: int

    @property
    def sound(self) -> bool:
        return self.code == 0 and self.executions > 0


def environment(target: str) -> dict[str, str]:
    leaks = 0 if target in PYTHON_TARGETS else 1
    return os.environ | {
        "ASAN_OPTIONS": f"detect_leaks={leaks}:allocator_may_return_null=1",
        "UBSAN_OPTIONS": "print_stacktrace=1",
        # So that the sanitizer sees every allocation of the interpreter.
        "PYTHONMALLOC": "malloc",
        "PYTHONHASHSEED": "0",
    }


def command(target: str, *options: str) -> list[str]:
    return [str(TREE / "tests/fuzz" / f"fuzz_{target}"), *options]


def number(pattern: str, text: str) -> int:
    """Its last number in the log; 0 for none."""
    found = re.findall(pattern, text)
    return int(found[-1]) if found else 0


def run(target: str, seconds: int, seed: int) -> Result:
    found = FOUND / target
    shutil.rmtree(found, ignore_errors=True)
    found.mkdir(parents=True)
    dictionary = HERE / "dictionaries" / f"{DICTIONARIES.get(target, 'json')}.dict"
    log = TREE / f"{target}.log"
    options = [
        f"-max_total_time={seconds}",
        f"-seed={seed}",
        f"-max_len={LONGEST}",
        f"-dict={dictionary}",
        f"-artifact_prefix={CRASHES}/{target}-",
        "-timeout=30",
        "-rss_limit_mb=3072",
        "-print_final_stats=1",
    ]
    with log.open("wb") as output:
        try:
            code = subprocess.run(
                command(target, *options, str(found), str(HERE / "corpus" / target)),
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.STDOUT,
                cwd=TREE,
                env=environment(target),
                timeout=seconds + GRACE,
            ).returncode
        except subprocess.TimeoutExpired:
            code = -1
    told = log.read_text(errors="replace")
    result = Result(
        target,
        code,
        number(r"stat::number_of_executed_units:\s+(\d+)", told),
        number(r"stat::new_units_added:\s+(\d+)", told),
        number(r"\bcov: (\d+)", told),
    )
    show(result, told)
    return result


def show(result: Result, told: str) -> None:
    state = "ok" if result.sound else f"FAILED (exit {result.code}), log in build/fuzz/{result.target}.log"
    figures = f"{result.executions:9} executions {result.new:5} new {result.edges:6} edges"
    print(f"{result.target:18} {figures}  {state}", flush=True)
    if not result.sound:
        print("\n".join(told.splitlines()[-40:]), flush=True)


def keep(target: str) -> int:
    """Add to the corpus those new inputs that reach new code."""
    corpus = HERE / "corpus" / target
    before = len(list(corpus.iterdir()))
    options = ["-merge=1", "-use_counters=0", "-use_value_profile=0", f"-max_len={LONGEST}"]
    subprocess.run(
        command(target, *options, str(corpus), str(FOUND / target)),
        check=True,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        cwd=TREE,
        env=environment(target),
    )
    return len(list(corpus.iterdir())) - before


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="make fuzz", description=__doc__.partition("\n")[0] if __doc__ else ""
    )
    parser.add_argument("--seconds", type=int, default=60, help="for each target (60)")
    parser.add_argument("--seed", type=int, default=secrets.randbelow(2**31 - 1) + 1)
    parser.add_argument("--jobs", type=int, default=PROCESSORS, help=f"targets at once ({PROCESSORS})")
    parser.add_argument("--keep", action="store_true", help="add what reaches new code to the corpora")
    parser.add_argument("targets", nargs="*", metavar="target", help=f"of {', '.join(TARGETS)} (all)")
    chosen = parser.parse_args()
    unknown = set(chosen.targets) - set(TARGETS)
    if unknown:
        parser.error(f"no such target: {', '.join(sorted(unknown))}")
    return chosen


def main() -> int:
    chosen = arguments()
    targets = chosen.targets or TARGETS
    CRASHES.mkdir(parents=True, exist_ok=True)
    print(f"seed {chosen.seed}, {chosen.seconds} s for each of {len(targets)} targets", flush=True)
    with ThreadPoolExecutor(chosen.jobs) as pool:
        results = list(pool.map(lambda target: run(target, chosen.seconds, chosen.seed), targets))
    failed = [result for result in results if not result.sound]
    if chosen.keep:
        for result in results:
            if result.sound:
                print(f"{result.target:18} {keep(result.target):5} inputs kept", flush=True)
    print(
        f"fuzz: {len(results)} targets, {sum(r.executions for r in results)} executions, "
        f"{sum(r.new for r in results)} new corpus entries, {sum(r.edges for r in results)} edges covered, "
        f"crashes {len(failed)}"
    )
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())

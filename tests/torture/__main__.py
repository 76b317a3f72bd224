"""`make torture`: every sweep, or one run again."""

from __future__ import annotations

import argparse
import concurrent.futures
import queue
import sys
import threading
import time

from .driver import Report, Sweep, Worker
from .exemptions import EXEMPTIONS
from .frames import chains
from .kinds import Mode, Run
from .loopback import Loopback


def repeat(run: Run) -> int:
    with Loopback() as address, Worker(address) as worker:
        result = worker.make(run)
    stacks = chains(result.pop("said"))
    for name, value in result.items():
        print(f"{name}: {value}")
    for stack in stacks:
        print(f"native: {stack}")
    return 1 if result["problems"] else 0


def run_all(
    report: Report, wanted: list[Sweep], address: str, seed: int, most: int | None, jobs: int
) -> None:
    lock = threading.Lock()
    waiting: queue.SimpleQueue[Sweep] = queue.SimpleQueue()
    for sweep in wanted:
        waiting.put(sweep)

    def work() -> None:
        with Worker(address) as worker:
            while True:
                try:
                    sweep = waiting.get_nowait()
                except queue.Empty:
                    return
                begun, count = time.monotonic(), 0
                for run, result in sweep.runs(worker, seed, most):
                    count += 1
                    with lock:
                        report.add(run, result)
                seconds = time.monotonic() - begun
                print(f"{sweep}: {count} runs in {seconds:.0f} s", flush=True)

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for done in [pool.submit(work) for _ in range(jobs)]:
            done.result()


def show(report: Report) -> None:
    for run, problems, stacks in report.findings:
        print(f"\nFINDING {run}   repeat: make torture ARGS='--run {run}'")
        for line in [*problems, *(f"native: {stack}" for stack in stacks[-3:])]:
            print(f"    {line}")
    print("\nexempt, being the interpreter's:")
    for exemption in EXEMPTIONS:
        if report.exempt[exemption.name]:
            print(f"    {report.exempt[exemption.name]:5} {exemption.name}: {exemption.reason}")


def main() -> int:
    parser = argparse.ArgumentParser(prog="torture", description=__doc__)
    parser.add_argument("--run", type=Run.parse, help="make one run again, as a finding names it")
    parser.add_argument("--only", default="", help="part of a sweep's name: scenario:kind:mode")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--most", type=int, help="runs per sweep, drawn with the seed; all without it")
    parser.add_argument("--jobs", type=int, default=2)
    options = parser.parse_args()
    if options.run:
        return repeat(options.run)
    with Loopback() as address, Worker(address) as teller:
        report = Report(teller)
        wanted = [sweep for sweep in teller.sweeps if options.only in str(sweep)]
        run_all(report, wanted, address, options.seed, options.most, options.jobs)
    show(report)
    runs = ", ".join(f"{count} {kind}" for kind, count in sorted(report.runs.items()))
    crashes = sum("the process ended" in problems[0] for _, problems, _ in report.findings)
    hangs = sum("it hangs" in problems[0] for _, problems, _ in report.findings)
    leaks = sum(run.mode is Mode.LEAK for run, _, _ in report.findings)
    print(
        f"torture: seed {options.seed}; runs: {runs}; {report.failures} failures injected; "
        f"{len(report.findings)} findings, of them {crashes} crashes, {hangs} hangs, {leaks} leaks; "
        f"{report.exempt.total()} exempt"
    )
    return 1 if report.findings or not report.runs else 0


if __name__ == "__main__":
    sys.exit(main())

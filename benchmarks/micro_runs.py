"""Runs the micro cases alternately, each time in separate processes, and collects their figures."""

from __future__ import annotations

import os
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

import pyperf

from .places import ROOT, running_server


def measured_once(case: str, environment: dict[str, str]) -> float:
    """Seconds per operation: the median of one pyperf process."""
    with tempfile.TemporaryDirectory() as folder:
        result = Path(folder) / "result.json"
        command = [
            sys.executable,
            "-m",
            "benchmarks.micro_cases",
            "--case",
            case,
            "--quiet",
            "--output",
            str(result),
        ]
        command += ["--processes=1", "--values=5", "--warmups=1", "--min-time=0.02"]
        command += ["--inherit-environ=BENCHMARK_SERVER"]
        subprocess.run(
            command,
            cwd=ROOT,
            env=os.environ | environment,
            check=True,
            timeout=300,
            stdout=subprocess.DEVNULL,
        )
        return statistics.median(pyperf.Benchmark.load(str(result)).get_values())


def group_samples(group: str, cases: list[str], rounds: int) -> dict[str, list[float]]:
    """Seconds per operation of each case, one value per round."""
    samples: dict[str, list[float]] = {case: [] for case in cases}
    with running_server() as server:
        for _ in range(rounds):
            for case in cases:
                value = measured_once(f"{group}/{case}", {"BENCHMARK_SERVER": server.base})
                samples[case].append(value)
    return samples

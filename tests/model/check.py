"""Searches the model in every configuration, and every mutant of it until a configuration detects it."""

from __future__ import annotations

import os
import re
import signal
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

from .configurations import CONFIGURATIONS, SAMPLES, Configuration
from .survivors import SURVIVORS

HERE = Path(__file__).resolve().parent
BUILD = HERE.parents[1] / "build" / "model"
GUARD = re.compile(r"\bGUARD\((?!name\b)(\w+)")
EFFECT = re.compile(r"\bEFFECT\((?!name\b)(\w+)")
ASSERTION = re.compile(r"\bassert\(")
COMPILE = ["-O0", "-w", "-DCOLLAPSE", "-DMEMLIM=3500", "-DVECTORSZ=1024"]
DEPTH = "-m1000000"
TIMEOUT = 900
# CPU time, so that a busy machine has the same results as an idle one.
GLANCE_SECONDS = 1
SAMPLE_SECONDS = 20


@dataclass(frozen=True)
class Mutant:
    name: str
    kind: str
    number: int

    def __str__(self) -> str:
        return f"{self.name} {self.kind}"


@dataclass(frozen=True)
class Verdict:
    errors: int
    states: int
    complaint: str
    seconds: float


def sources() -> str:
    return "\n".join(path.read_text() for path in sorted(HERE.glob("*.pml")))


def mutants() -> list[Mutant]:
    text = sources()
    guards = sorted(set(GUARD.findall(text)))
    effects = sorted(set(EFFECT.findall(text)) - set(guards))
    made = []
    for number, name in enumerate(guards, start=1):
        kinds = enumerate(("negated", "always", "never"))
        made += [Mutant(name, kind, 3 * number + offset) for offset, kind in kinds]
    for number, name in enumerate(effects, start=len(guards) + 1):
        made.append(Mutant(name, "dropped", 3 * number))
    return made


class Unfinished(Exception):
    """A search that has exceeded its limit of CPU time."""


def run(command: list[str], folder: Path, seconds: int = TIMEOUT, **environment: str) -> str:
    done = subprocess.run(
        ["prlimit", f"--cpu={seconds}:{seconds + 1}", *command],
        cwd=folder,
        env={**os.environ, **environment},
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=20 * seconds,
        check=False,
    )
    if done.returncode == -signal.SIGXCPU:
        raise Unfinished(f"{' '.join(command)} in {folder}")
    if done.returncode != 0 and "errors:" not in done.stdout:
        raise SystemExit(f"{' '.join(command)}:\n{done.stdout}")
    return done.stdout


def make(configuration: Configuration, purpose: str, *options: str) -> Path:
    """A program that searches the configuration, or a mutant of it."""
    folder = BUILD / configuration.name / purpose
    folder.mkdir(parents=True, exist_ok=True)
    # The preprocessor that spin calls looks for the numbers of the mutants there.
    run(["spin", "-a", *configuration.definitions(), str(HERE / "manager.pml")], folder, CPATH=str(BUILD))
    compiler = os.environ.get("CC", "gcc")
    run([compiler, *COMPILE, *options, f"-I{HERE}", "-o", "pan", "pan.c"], folder)
    return folder


def search(folder: Path, *options: str, mutant: int = 0, seconds: int = TIMEOUT) -> Verdict:
    begun = time.monotonic()
    output = run(["./pan", DEPTH, *options], folder, seconds, MUTANT=str(mutant))
    errors = int(re.findall(r"errors: (\d+)", output)[-1])
    states = int(re.findall(r"(\d+) states, stored", output)[-1])
    if not errors and re.search(r"max search depth too small|out of memory|truncated", output):
        raise SystemExit(f"{folder}: the search was not exhaustive:\n{output}")
    complaint = next(iter(re.findall(r"pan:\d+: (.*?) \(at depth", output)), "")
    return Verdict(errors, states, complaint, time.monotonic() - begun)


def search_intact(configuration: Configuration) -> tuple[Verdict, Verdict | None]:
    """Every state; and, if that is small enough, whether a run can continue for ever."""
    safety = search(make(configuration, "safety", "-DSAFETY"))
    if not configuration.small:
        return safety, None
    return safety, search(make(configuration, "endless", "-DNP", "-DNOFAIR"), "-l")


def kill(mutant: Mutant) -> str:
    """The configuration that detects the mutant, if any. The large ones are skipped for excused mutants."""
    small = [configuration for configuration in CONFIGURATIONS if configuration.small]
    large = [configuration for configuration in CONFIGURATIONS if not configuration.small]
    left = small if str(mutant) in SURVIVORS else [*small, *reversed(large), *SAMPLES]
    for seconds in (GLANCE_SECONDS, SAMPLE_SECONDS):
        unfinished = []
        for configuration in left:
            folder = BUILD / configuration.name / "safety"
            try:
                found = search(folder, mutant=mutant.number, seconds=seconds)
            except Unfinished:
                unfinished.append(configuration)
                continue
            if found.errors:
                return configuration.name
        left = unfinished
    return ""


def main() -> int:
    sys.stdout.reconfigure(line_buffering=True)  # type: ignore[union-attr]
    failed = False
    total = 0
    BUILD.mkdir(parents=True, exist_ok=True)
    every = mutants()
    numbers = "".join(f"#define M_{m.name} {m.number // 3}\n" for m in every if m.number % 3 == 0)
    (BUILD / "numbers.h").write_text(numbers)
    workers = int(os.environ.get("MODEL_JOBS", "2"))
    with ThreadPoolExecutor(workers) as pool:
        verdicts = pool.map(search_intact, CONFIGURATIONS)
        for configuration, (safety, endless) in zip(CONFIGURATIONS, verdicts, strict=True):
            total += safety.states
            failed |= bool(safety.errors or (endless and endless.errors))
            sizes = " ".join(f"{name}={value}" for name, value in configuration.sizes.items())
            said = safety.complaint or (
                endless.complaint or "holds, and every run ends" if endless else "holds"
            )
            print(
                f"{configuration.name:16} {safety.states:9} states {safety.seconds:6.1f} s  {said}  [{sizes}]"
            )
        list(pool.map(lambda sample: make(sample, "safety", "-DSAFETY"), SAMPLES))
        killed = 0
        for mutant, by in zip(every, pool.map(kill, every), strict=True):
            killed += bool(by)
            excuse = SURVIVORS.get(str(mutant))
            if bool(by) == bool(excuse):
                failed = True
                print(f"mutant {mutant}: {'survives' if not by else f'is excused and yet killed by {by}'}")
            elif excuse:
                print(f"mutant {mutant} changes nothing: {excuse}")
    properties = len(ASSERTION.findall(sources()))
    print(
        f"model: {total} states in {len(CONFIGURATIONS)} configurations, {properties} assertions;"
        f" {killed} of {len(every)} mutants killed, {len(SURVIVORS)} excused{'; FAILED' if failed else ''}"
    )
    return int(failed)


if __name__ == "__main__":
    sys.exit(main())

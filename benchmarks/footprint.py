"""The component's costs: time to import, memory per manager, and growth with the size of responses."""

from __future__ import annotations

import os
import statistics
import subprocess
import sys
from collections.abc import Callable
from pathlib import Path

import jwt

from tessaline import auth

from .heap_use import FLEET
from .logins import seconds
from .places import PACKAGE, PROGRAMS, ROOT, running_server
from .ratios import Figure, Group, Ratio, in_turns, medians_of

# Ten times as much in at most this many times ten times the time.
LINEAR = 1.5


def search_path(package: Path = PACKAGE) -> str:
    """The environment in which a program imports the component of that folder, and the benchmarks."""
    return os.pathsep.join(map(str, (package, PROGRAMS, ROOT)))


def printed_by(module: str, *arguments: str, **environment: str) -> list[str]:
    """The lines that the module prints, run as a program in a new process."""
    result = subprocess.run(
        [sys.executable, "-m", f"benchmarks.{module}", *arguments],
        env=os.environ | {"PYTHONPATH": search_path()} | environment,
        check=True,
        timeout=300,
        stdout=subprocess.PIPE,
        text=True,
    )
    return result.stdout.splitlines()


def importing(rounds: int) -> Group:
    """The import after Python's own modules that it needs, in new processes with warm file caches."""
    modules = printed_by("import_time")[1].split()
    samples = in_turns({"import": lambda: float(printed_by("import_time", *modules)[0])}, rounds)["import"]
    milliseconds = Ratio.around([sample * 1000 for sample in samples])
    figure = Figure("import, standard library already loaded", "ms", milliseconds, 3.0)
    return Group("Import", [figure], {"import": figure.ratio.median / 1000})


def memory(rounds: int) -> Group:
    """Heap of a logged-in manager without that of Python objects, and whether logins get slower."""
    slower = []

    def manager() -> float:
        each, last_beside_first = map(float, printed_by("heap_use", "manager", PYTHONMALLOC="malloc"))
        slower.append(last_beside_first)
        return each

    def host_objects() -> float:
        return float(printed_by("heap_use", "host", PYTHONMALLOC="malloc")[0])

    samples = in_turns({"manager": manager, "host objects alone": host_objects}, rounds)
    pairs = zip(samples["manager"], samples["host objects alone"], strict=True)
    kibibytes = [(one - other) / 1024 for one, other in pairs]
    figures = [
        Figure("heap of a manager beyond its Python objects", "KiB", Ratio.around(kibibytes), 8.0),
        Figure(f"login of the last 100 of {FLEET:,}", "the first 100", Ratio.around(slower), LINEAR),
    ]
    return Group("Memory", figures, medians_of(samples), unit="B")


def growth(rounds: int) -> Group:
    """Time by size of the token's payload and of the server's response."""
    figures: list[Figure] = []
    medians: dict[str, float] = {}
    for name, sizes, measure in (
        ("token payload", (1_000, 10_000, 100_000, 1_000_000), token_seconds),
        ("server's body", (1_000, 10_000, 100_000, 1_000_000, 10_000_000), body_seconds),
    ):
        samples = measure(sizes, rounds)
        medians |= {f"{name}, {size // 1000:,} kB": statistics.median(samples[size]) for size in sizes}
        for smaller, larger in zip(sizes[-3:], sizes[-2:], strict=False):
            steps = [one / other / 10 for one, other in zip(samples[larger], samples[smaller], strict=True)]
            subject = f"{name}, {larger // 1000:,} kB"
            figures.append(Figure(subject, "ten times a tenth of it", Ratio.around(steps), LINEAR))
    return Group("Growth", figures, medians)


def fastest(operation: Callable[[], object], times: int = 5) -> float:
    return min(seconds(operation) for _ in range(times))


def token_seconds(sizes: tuple[int, ...], rounds: int) -> dict[int, list[float]]:
    wallet = "0x" + "ab" * 20
    tokens = {size: jwt.encode({"sub": wallet, "filler": "f" * size}, "x" * 32) for size in sizes}

    def checked(size: int) -> float:
        return fastest(lambda: auth._assert_token_subject_matches_wallet(tokens[size], wallet))

    checked(max(sizes))
    return {size: [checked(size) for _ in range(rounds)] for size in sizes}


def body_seconds(sizes: tuple[int, ...], rounds: int) -> dict[int, list[float]]:
    with running_server() as server:

        def fetched(size: int) -> float:
            url = f"{server.base}/body/{size}"
            return fastest(lambda: auth._default_http_transport("POST", url))

        # glibc adapts to the largest freed block; before that, each size pays for new pages.
        fetched(max(sizes))
        return {size: [fetched(size) for _ in range(rounds)] for size in sizes}

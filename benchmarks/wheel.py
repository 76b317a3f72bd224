"""A wheel compared with the build from source: the import, and the first login of a process."""

from __future__ import annotations

import os
import statistics
import sys
import tempfile
import zipfile
from collections.abc import Iterator, Mapping, Sequence
from contextlib import contextmanager
from functools import partial
from pathlib import Path

from tools.wheels.targets import here

from .footprint import printed_by, search_path
from .network_trust import trusted_beside_the_system
from .places import PACKAGE, ROOT, running_server
from .ratios import Figure, Group, Ratio, in_turns, medians_of

# Not slower; two builds of the same sources often differ this much.
NOISE = 1.05
WHEEL, BUILD = "tessaline, wheel", "tessaline, built here"


@contextmanager
def unpacked_wheel() -> Iterator[Path]:
    """A folder to import from, with the content of the wheel for this interpreter."""
    target = here("{}.{}".format(*sys.version_info), os.uname().machine)
    found = next((ROOT / "dist").glob(f"*-{target}.whl"), None)
    if found is None:
        sys.exit(f"dist has no wheel for {target}: make wheel")
    with tempfile.TemporaryDirectory() as folder, zipfile.ZipFile(found) as archive:
        archive.extractall(folder)
        yield Path(folder)


def beside_build(title: str, rounds: int, program: Sequence[str], environment: Mapping[str, str]) -> Group:
    """The seconds that the program prints with the wheel, and those with the build."""

    def measured(package: Path) -> float:
        there = {**environment, "PYTHONPATH": search_path(package)}
        # Short, because other programs on the machine may disturb one.
        return statistics.median(float(printed_by(*program, **there)[0]) for _ in range(3))

    with unpacked_wheel() as wheel:
        samples = in_turns({WHEEL: partial(measured, wheel), BUILD: partial(measured, PACKAGE)}, rounds)
    figure = Figure(title.lower(), BUILD, Ratio.of(samples[WHEEL], samples[BUILD]), NOISE)
    return Group(title, [figure], medians_of(samples))


def importing(rounds: int) -> Group:
    """As `footprint.importing`."""
    modules = printed_by("import_time")[1].split()
    return beside_build("Import of a wheel", rounds, ["import_time", *modules], {})


def first_login(rounds: int) -> Group:
    """Processor time of the first login of a process, over TLS, with the import."""
    with (
        trusted_beside_the_system() as trust,
        running_server(certificate=(trust.chain, trust.key)) as server,
    ):
        program = ["first_login", server.base]
        return beside_build("First login of a process with a wheel", rounds, program, trust.environment)

"""The targets of wheels, by the names that tools/wheel uses.

python -m tools.wheels.targets [--all]
"""

from __future__ import annotations

import os
import sys
from dataclasses import dataclass

from .libc import GLIBC, MUSL, Libc
from .pins import headers

PYTHONS = tuple(pin.python for pin in headers())
# Machines, with Debian's names for them.
ARCHITECTURES = {"x86_64": "amd64", "aarch64": "arm64"}


@dataclass(frozen=True)
class Platform:
    machine: str
    libc: Libc = GLIBC

    def __str__(self) -> str:
        """The tag of its wheels."""
        return f"{self.libc.tag}_{self.machine}"

    @property
    def triplet(self) -> str:
        return f"{self.machine}-linux-{self.libc.name}"

    @property
    def compiled(self) -> str:
        """For Zig."""
        return f"{self.machine}-linux-{self.libc.compiled}"

    @property
    def architecture(self) -> str:
        return ARCHITECTURES[self.machine]


@dataclass(frozen=True)
class Target:
    python: str
    platform: Platform

    def __str__(self) -> str:
        """As in the file name of its wheel."""
        return f"{self.interpreter}-{self.interpreter}-{self.platform}"

    @property
    def interpreter(self) -> str:
        return f"cp{self.python.replace('.', '')}"

    @property
    def soabi(self) -> str:
        """The suffix of its extension modules."""
        return f"cpython-{self.interpreter.removeprefix('cp')}-{self.platform.triplet}"


PLATFORMS = (*map(Platform, ARCHITECTURES), Platform("x86_64", MUSL))
TARGETS = tuple(Target(python, platform) for platform in PLATFORMS for python in PYTHONS)


def platform(name: str) -> Platform:
    return next(known for known in PLATFORMS if str(known) == name)


def target(name: str) -> Target:
    return next(known for known in TARGETS if str(known) == name)


def here(python: str, machine: str) -> Target:
    """For a Python with glibc."""
    if python not in PYTHONS or machine not in ARCHITECTURES:
        sys.exit(
            f"Wheels are for CPython {', '.join(PYTHONS)} on {' and '.join(ARCHITECTURES)}, not for "
            f"{python} on {machine}: make PYTHON=..., or pip install . without a wheel"
        )
    return Target(python, Platform(machine))


def main(arguments: list[str]) -> None:
    running = "{}.{}".format(*sys.version_info)
    wanted = TARGETS if arguments == ["--all"] else [here(running, os.uname().machine)]
    print("\n".join(map(str, wanted)))


if __name__ == "__main__":
    main(sys.argv[1:])

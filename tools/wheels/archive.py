"""Debian's archive, by its package client, which checks the signatures."""

from __future__ import annotations

import hashlib
import subprocess
import sys
import tempfile
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from functools import cache
from pathlib import Path

from .pins import PLACE, Headers, Pin
from .targets import ARCHITECTURES

KEYRINGS = [Path(f"/usr/share/keyrings/debian-archive-keyring.{ending}") for ending in ("pgp", "gpg")]


class ArchiveError(Exception):
    pass


def said_by(*command: str) -> str:
    done = subprocess.run(command, cwd=PLACE, capture_output=True, text=True, timeout=600)
    if done.returncode != 0:
        raise ArchiveError(done.stderr.strip())
    return done.stdout


def archive_lines(targets: str, kind: str, wanted: str, keyring: Path) -> list[str]:
    """Lines for the package client: a suite, from the mirror of this machine's own packages."""
    parts = ("",) if wanted == "sid" else ("", "security", "updates")
    only = f"arch={','.join(ARCHITECTURES.values())} " if kind == "deb" else ""
    lines = set()
    for site, release in (line.split("|") for line in targets.splitlines()):
        _, dash, part = release.partition("-")
        if part in parts:
            lines.add(f"{kind} [{only}signed-by={keyring}] {site} {wanted}{dash}{part} main")
    return sorted(lines)


def packages(pin: Headers) -> list[str]:
    return [f"{pin.package}:{architecture}" for architecture in ARCHITECTURES.values()]


class Archive:
    """The package client's view of a suite, with its own state, which needs no root."""

    def __init__(self, folder: Path, kind: str, suite: str) -> None:
        told = said_by("apt-get", "indextargets", "--format", "$(SITE)|$(RELEASE)", "Origin: Debian")
        keyring = next((path for path in KEYRINGS if path.exists()), None)
        if not told or keyring is None:
            sys.exit("Wheels are built from a Debian archive. Apt knows of none here: run apt-get update.")
        for name in ("lists/partial", "cache/archives/partial"):
            (folder / name).mkdir(parents=True)
        lines = archive_lines(told, kind, suite, keyring)
        (folder / "sources.list").write_text("\n".join(lines) + "\n")
        self._options = [
            f"-oDir::Etc::SourceList={folder}/sources.list",
            "-oDir::Etc::SourceParts=/dev/null",
            f"-oDir::State::Lists={folder}/lists",
            "-oDir::State::Status=/dev/null",
            f"-oDir::Cache={folder}/cache",
            # Pins name versions, so outdated lists of a mirror do no harm.
            "-oAcquire::Check-Valid-Until=false",
            "-oAPT::Sandbox::User=",
            *(f"-oAPT::Architectures::={name}" for name in ARCHITECTURES.values()),
        ]
        self.said("apt-get", "update", "--error-on=any")

    def said(self, program: str, *arguments: str) -> str:
        return said_by(program, *self._options, *arguments)

    def bring(self, pin: Pin) -> None:
        """Downloads its files."""
        if isinstance(pin, Headers):
            self.said("apt-get", "download", *(f"{name}={pin.version}" for name in packages(pin)))
        else:
            self.said("apt-get", "source", "--download-only", f"{pin.package}={pin.version}")

    def records(self, pin: Pin) -> str:
        """The records of its packages."""
        if isinstance(pin, Headers):
            return self.said("apt-cache", "show", *packages(pin))
        return self.said("apt-cache", "showsrc", pin.package)


@contextmanager
def archives() -> Iterator[Callable[[Pin], Archive]]:
    """The archive of that pin."""
    with tempfile.TemporaryDirectory() as folder:
        known = cache(lambda kind, suite: Archive(Path(folder, kind, suite), kind, suite))
        yield lambda pin: known(pin.kind, pin.suite)


def is_whole(pin: Pin) -> bool:
    files = [(PLACE / name, digest) for name, digest in pin.sha256.items()]
    return all(
        path.is_file() and hashlib.sha256(path.read_bytes()).hexdigest() == digest for path, digest in files
    )

"""Puts the pinned sources into build/bundled/sources, as Debian's package client brings them and checks their
signatures, from the archive that this machine is set up with.

python -m tools.wheels.sources [--renew]

With --renew the newest versions of the suite are pinned instead.
"""

from __future__ import annotations

import hashlib
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

from .pins import PINS, PLACE, Source, pinned, suite

KEYRINGS = [Path(f"/usr/share/keyrings/debian-archive-keyring.{ending}") for ending in ("pgp", "gpg")]


def is_whole(source: Source) -> bool:
    files = [(PLACE / name, digest) for name, digest in source.sha256.items()]
    return all(
        path.is_file() and hashlib.sha256(path.read_bytes()).hexdigest() == digest for path, digest in files
    )


def archive_lines(targets: str, wanted: str, keyring: Path) -> list[str]:
    """Lines for the package client: the sources of a suite, where this machine's own packages come from."""
    lines = set()
    for site, release in (line.split("|") for line in targets.splitlines()):
        _, dash, part = release.partition("-")
        if part in ("", "security", "updates"):
            lines.add(f"deb-src [signed-by={keyring}] {site} {wanted}{dash}{part} main")
    return sorted(lines)


class Archive:
    """What the package client knows, in a state of its own, which needs no root."""

    def __init__(self, folder: Path) -> None:
        told = _said("apt-get", "indextargets", "--format", "$(SITE)|$(RELEASE)", "Origin: Debian")
        keyring = next((path for path in KEYRINGS if path.exists()), None)
        if not told or keyring is None:
            sys.exit(
                "The sources come from a Debian archive, and apt knows of none here: run apt-get update."
            )
        for name in ("lists/partial", "cache/archives/partial"):
            (folder / name).mkdir(parents=True)
        (folder / "sources.list").write_text("\n".join(archive_lines(told, suite(), keyring)) + "\n")
        self._options = [
            f"-oDir::Etc::SourceList={folder}/sources.list",
            "-oDir::Etc::SourceParts=/dev/null",
            f"-oDir::State::Lists={folder}/lists",
            f"-oDir::Cache={folder}/cache",
            # A pin says what it wants, so lists that somebody held back bring nothing that is not wanted.
            "-oAcquire::Check-Valid-Until=false",
            "-oAPT::Sandbox::User=",
        ]
        self.said("apt-get", "update", "--error-on=any")

    def said(self, program: str, *arguments: str) -> str:
        return _said(program, *self._options, *arguments)


def _said(*command: str) -> str:
    done = subprocess.run(command, cwd=PLACE, capture_output=True, text=True, timeout=600)
    if done.returncode != 0:
        raise ArchiveError(done.stderr.strip())
    return done.stdout


class ArchiveError(Exception):
    pass


def fetch(archive: Archive, source: Source) -> None:
    try:
        archive.said("apt-get", "source", "--download-only", f"{source.package}={source.version}")
    except ArchiveError as error:
        sys.exit(
            f"Debian's archive has not {source.package} {source.version} (any more): `make wheel-sources` "
            f"pins the newest that it has, or write another version into {PINS.name}. It said: {error}"
        )
    if not is_whole(source):
        sys.exit(f"{source.package} {source.version} is not what {PINS.name} has the checksums of.")


def unpack(source: Source) -> None:
    folder = source.folder
    new = folder.with_suffix(".new")
    for old in (new, folder):
        shutil.rmtree(old, ignore_errors=True)
    # Unchecked: the package client has checked the signature of the list that names it.
    _said("dpkg-source", "--no-check", "-x", f"{source.package}_{source.version}.dsc", new.name)
    new.rename(folder)


def renewed(text: str, package: str, record: str) -> str:
    """The pins with what a record of the archive says of that package."""
    (version,) = re.findall(r"^Version: (\S+)", record, re.MULTILINE)
    listed = re.search(r"^Checksums-Sha256:\s*\n((?: .*\n)+)", record, re.MULTILINE)
    assert listed is not None
    files = sorted(line.split()[::2] for line in listed[1].splitlines())
    told = {name: digest for digest, name in files if ".tar." in name and not name.endswith(".asc")}
    text = re.sub(rf'(\[{package}\]\nversion = ")[^"]*', rf"\g<1>{version}", text)
    lines = "".join(f'"{name}" = "{digest}"\n' for name, digest in sorted(told.items()))
    return re.sub(rf'(\[{package}\.sha256\]\n)(?:".*\n)*', rf"\g<1>{lines}", text)


def newest(records: str) -> str:
    """Of the records of a package, the one with the highest version."""
    best, chosen = "", ""
    for record in records.strip().split("\n\n"):
        (version,) = re.findall(r"^Version: (\S+)", record, re.MULTILINE)
        if not best or subprocess.run(["dpkg", "--compare-versions", version, "gt", best]).returncode == 0:
            best, chosen = version, record + "\n"
    return chosen


def renew(archive: Archive) -> None:
    text = PINS.read_text()
    for source in pinned():
        text = renewed(text, source.package, newest(archive.said("apt-cache", "showsrc", source.package)))
    PINS.write_text(text)


def main(arguments: list[str]) -> None:
    PLACE.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as folder:
        if arguments == ["--renew"]:
            renew(Archive(Path(folder)))
            return
        wanted = [source for source in pinned() if not is_whole(source)]
        if wanted:
            archive = Archive(Path(folder))
            for source in wanted:
                fetch(archive, source)
    for source in pinned():
        if source in wanted or not source.folder.exists():
            unpack(source)


if __name__ == "__main__":
    try:
        main(sys.argv[1:])
    except ArchiveError as error:
        sys.exit(f"The package client failed: {error}")

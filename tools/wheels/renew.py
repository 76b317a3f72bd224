"""Pins the newest sources and headers available in Debian's archive: its lists may be ahead of the files.

python -m tools.wheels.renew
"""

from __future__ import annotations

import functools
import re
import subprocess
import sys
from collections import defaultdict
from collections.abc import Mapping
from dataclasses import replace
from pathlib import Path

from .archive import Archive, ArchiveError, archives, is_whole
from .pins import HEADERS, PINS, PLACE, Pin, headers, pinned


def files_of(record: str) -> dict[str, str]:
    """The files of a source package, or the file of another, with their checksums."""
    one = re.search(r"^Filename: .*/(\S+)$", record, re.MULTILINE)
    if one is not None:
        return {one[1]: re.findall(r"^SHA256: (\S+)$", record, re.MULTILINE)[0]}
    listed = re.search(r"^Checksums-Sha256:\s*\n((?: .*\n)+)", record, re.MULTILINE)
    assert listed is not None
    files = [line.split() for line in listed[1].splitlines()]
    return {name: digest for digest, _, name in files if ".tar." in name and not name.endswith(".asc")}


def _order(one: str, other: str) -> int:
    is_newer = subprocess.run(["dpkg", "--compare-versions", one, "gt", other]).returncode == 0
    return -1 if is_newer else 1


def newest_first(records: str) -> list[tuple[str, dict[str, str]]]:
    """The versions that are completely available for both machines, with their files."""
    found: dict[str, dict[str, str]] = defaultdict(dict)
    for record in records.strip().split("\n\n"):
        (version,) = re.findall(r"^Version: (\S+)", record, re.MULTILINE)
        found[version] |= files_of(record + "\n")
    versions = sorted(found, key=functools.cmp_to_key(_order))
    return [(version, found[version]) for version in versions if len(found[version]) == 2]


def newest(archive: Archive, pin: Pin) -> Pin:
    """That pin with the newest available version."""
    for version, files in newest_first(archive.records(pin)):
        newer = replace(pin, version=version, sha256=files)
        try:
            if not is_whole(newer):
                archive.bring(newer)
        except ArchiveError as error:
            reason = str(error).splitlines()[0]
            print(f"{pin.package} {version} is listed, but cannot be had (yet): {reason}", file=sys.stderr)
            continue
        if is_whole(newer):
            return newer
        sys.exit(f"{pin.package} {version} is not what the archive's list has the checksums of.")
    sys.exit(f"Debian's {pin.suite} has no {pin.package} that could be had.")


def renewed(text: str, name: str, version: str, files: Mapping[str, str]) -> str:
    """The pins with another version in that section."""
    section = rf"(^\[{name}\]\n(?:[^\[\n].*\n)*?version = \")[^\"]*"
    text = re.sub(section, rf"\g<1>{version}", text, flags=re.MULTILINE)
    lines = "".join(f'"{file}" = "{digest}"\n' for file, digest in sorted(files.items()))
    return re.sub(rf'(\[{name}\.sha256\]\n)(?:".*\n)*', rf"\g<1>{lines}", text)


def main() -> None:
    PLACE.mkdir(parents=True, exist_ok=True)
    pins: dict[Path, list[Pin]] = {PINS: [*pinned()], HEADERS: [*headers()]}
    with archives() as archive_of:
        for path, some in pins.items():
            for pin in some:
                newer = newest(archive_of(pin), pin)
                path.write_text(renewed(path.read_text(), pin.name, newer.version, newer.sha256))
                if newer != pin:
                    print(f"{pin.package} {newer.version}, instead of {pin.version}")


if __name__ == "__main__":
    try:
        main()
    except ArchiveError as error:
        sys.exit(f"The package client failed: {error}")

"""Unpacks the newest source package of that name that Debian has, in the suite of the wheel's other sources.

python -m tools.wheels.interpreter PACKAGE FOLDER
"""

from __future__ import annotations

import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

from .pins import PLACE
from .sources import Archive, ArchiveError, newest


def description(package: str, record: str) -> str:
    """The name of the file that says what the source package is made of."""
    (version,) = re.findall(r"^Version: (?:\d+:)?(\S+)", record, re.MULTILINE)
    return f"{package}_{version}.dsc"


def main(package: str, folder: Path) -> None:
    PLACE.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as state:
        archive = Archive(Path(state))
        record = newest(archive.said("apt-cache", "showsrc", package))
        archive.said("apt-get", "source", "--download-only", package)
    shutil.rmtree(folder, ignore_errors=True)
    # Unchecked: the package client has checked the signature of the list that names it.
    command = ["dpkg-source", "--no-check", "-x", description(package, record), str(folder.resolve())]
    subprocess.run(command, cwd=PLACE, check=True, timeout=600)


if __name__ == "__main__":
    try:
        main(sys.argv[1], Path(sys.argv[2]))
    except ArchiveError as error:
        sys.exit(f"The package client failed: {error}")

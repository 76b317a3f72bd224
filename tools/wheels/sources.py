"""Downloads the inputs of wheels into build/bundled/sources, with Debian's package client from this machine's
configured archive: the pinned sources, and the headers of the Pythons of those targets.

python -m tools.wheels.sources TARGET...
"""

from __future__ import annotations

import io
import shutil
import subprocess
import sys
import tarfile

from . import targets
from .archive import Archive, ArchiveError, archives, is_whole, said_by
from .pins import PLACE, Headers, Pin, Source, headers, pinned


def fetch(archive: Archive, pin: Pin) -> None:
    try:
        archive.bring(pin)
    except ArchiveError as error:
        sys.exit(
            f"Debian's archive has not {pin.package} {pin.version} (any more): `make wheel-sources` "
            f"pins the newest that it has. It said: {error}"
        )
    if not is_whole(pin):
        sys.exit(f"{pin.package} {pin.version} is not what is pinned: its checksums differ.")


def unpack_source(source: Source) -> None:
    folder = source.folder
    new = folder.with_suffix(".new")
    for old in (new, folder):
        shutil.rmtree(old, ignore_errors=True)
    # Unchecked: the package client has verified the signature of the list that names it.
    said_by("dpkg-source", "--no-check", "-x", f"{source.package}_{source.version}.dsc", new.name)
    new.rename(folder)


def unpack_headers(pin: Headers, architecture: str) -> None:
    """Into one folder, with those for the machine."""
    folder = pin.folder(architecture)
    new = folder.with_suffix(".new")
    for old in (new, folder):
        shutil.rmtree(old, ignore_errors=True)
    packed = subprocess.run(
        ["dpkg-deb", "--fsys-tarfile", pin.file(architecture)], check=True, capture_output=True, timeout=60
    )
    with tarfile.open(fileobj=io.BytesIO(packed.stdout)) as archive:
        for member in archive:
            place, _, inside = member.name.partition(f"/python{pin.python}/")
            # It would include the machine's own, which is used instead.
            chooses = (place, inside) == ("./usr/include", "pyconfig.h")
            if member.isfile() and place.startswith("./usr/include") and not chooses:
                target = new / inside
                target.parent.mkdir(parents=True, exist_ok=True)
                file = archive.extractfile(member)
                assert file is not None
                target.write_bytes(file.read())
    new.rename(folder)


def main(names: list[str]) -> None:
    PLACE.mkdir(parents=True, exist_ok=True)
    wheels = [targets.target(name) for name in names]
    interpreters = {wheel.interpreter for wheel in wheels}
    sources = pinned()
    of_pythons = {pin.name: pin for pin in headers() if pin.name in interpreters}
    wanted = [pin for pin in (*sources, *of_pythons.values()) if not is_whole(pin)]
    with archives() as archive_of:
        for pin in wanted:
            fetch(archive_of(pin), pin)
    for source in sources:
        if source in wanted or not source.folder.exists():
            unpack_source(source)
    folders = {(wheel.interpreter, wheel.platform.architecture) for wheel in wheels}
    for interpreter, architecture in sorted(folders):
        pin = of_pythons[interpreter]
        if pin in wanted or not pin.folder(architecture).exists():
            unpack_headers(pin, architecture)


if __name__ == "__main__":
    try:
        main(sys.argv[1:])
    except ArchiveError as error:
        sys.exit(f"The package client failed: {error}")

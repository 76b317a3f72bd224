"""Puts the licences of the libraries that will be grafted into an unpacked wheel, as Debian tells them.

python -m tools.wheels.licences UNPACKED_WHEEL
"""

from __future__ import annotations

import re
import subprocess
import sys
from pathlib import Path

from .outside import OUTSIDE

# Inside the module and the library that makes requests.
LINKED_IN = {"libstdc++6"}
COMMON = re.compile(r"/usr/share/common-licenses/([A-Za-z0-9.-]*[A-Za-z0-9])")


def brought_along(library: Path) -> set[Path]:
    """The files of all that a library is linked with, but for what stays outside."""
    listed = subprocess.run(["ldd", library], check=True, capture_output=True, text=True, timeout=60).stdout
    found = re.findall(r"^\s*(\S+) => (\S+)", listed, re.MULTILINE)
    if missing := [name for name, path in found if not path.startswith("/")]:
        sys.exit(f"{library} needs {missing}, which cannot be found")
    return {Path(path).resolve() for name, path in found if name not in OUTSIDE}


def package_of(library: Path) -> str:
    """The Debian package that a file came with, under whichever of its two names the package knows it."""
    for name in (str(library), str(library).removeprefix("/usr")):
        owner = subprocess.run(["dpkg-query", "-S", name], capture_output=True, text=True, timeout=60)
        if owner.returncode == 0:
            return owner.stdout.split(":")[0]
    sys.exit(f"no Debian package has brought {library}: its licence is not known")


def put_licences(wheel: Path) -> list[str]:
    """What was put there, named as the metadata names licence files."""
    (metadata,) = wheel.glob("*.dist-info/METADATA")
    licences = metadata.parent / "licenses"
    (licences / "grafted").mkdir(parents=True)
    libraries = set[Path]().union(*map(brought_along, wheel.glob("tessaline/*.so")))
    packages = LINKED_IN.union(map(package_of, libraries))
    texts = {name: Path("/usr/share/doc", name, "copyright").read_text() for name in packages}
    listed = ["dpkg-query", "-W", "-f=${Package} ${Version}\\n", *sorted(packages)]
    texts["PACKAGES"] = subprocess.run(listed, check=True, capture_output=True, text=True, timeout=60).stdout
    for name in {name for text in texts.values() for name in COMMON.findall(text)}:
        texts[f"common-licenses-{name}"] = Path("/usr/share/common-licenses", name).read_text()
    for name, text in texts.items():
        (licences / "grafted" / name).write_text(text)
    return [f"grafted/{name}" for name in sorted(texts)]


def declare(wheel: Path, names: list[str]) -> None:
    (metadata,) = wheel.glob("*.dist-info/METADATA")
    head, separator, body = metadata.read_text().partition("\n\n")
    lines = "".join(f"\nLicense-File: {name}" for name in names)
    metadata.write_text(head + lines + separator + body)


if __name__ == "__main__":
    wheel = Path(sys.argv[1])
    declare(wheel, put_licences(wheel))

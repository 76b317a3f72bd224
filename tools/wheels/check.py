"""Checks a repaired wheel, and says in one line what it is.

python -m tools.wheels.check WHEEL FOLDER_OF_DEBUG_FILES
"""

from __future__ import annotations

import re
import sys
import tempfile
import zipfile
from pathlib import Path

from . import elf
from .outside import OUTSIDE

TAG = re.compile(r"-cp313-cp313-manylinux_2_[0-9]+_(x86_64|aarch64)\.whl")
EXPORTS = {
    "_native.": "PyInit__native",
    "auth.": "PyInit_auth",
    "libtessaline_http.": "tessaline_http_library",
}
GRAFTED = "tessaline.libs"


def faults_of_library(library: elf.Library, grafted: dict[str, elf.Library]) -> list[str]:
    found = [f"needs {name}" for name in sorted(library.needed - OUTSIDE - set(grafted))]
    inside = library.needed & set(grafted)
    wanted = "$ORIGIN" if library.path.parent.name == GRAFTED else f"$ORIGIN/../{GRAFTED}"
    if library.search_path != (wanted if inside else ""):
        found.append(f"searches {library.search_path!r}")
    if any(name.startswith(".debug_") for name in library.sections):
        found.append("has debug information")
    return found


def faults_of_own(library: elf.Library, debug: Path) -> list[str]:
    (export,) = [symbol for prefix, symbol in EXPORTS.items() if library.path.name.startswith(prefix)]
    found = [] if library.exports == {export} else [f"exports {sorted(library.exports)}"]
    if ".symtab" in library.sections:
        found.append("has a symbol table")
    file = debug / f"{library.path.name}.debug"
    if not (file.exists() and library.debugged_by(file)):
        found.append("has no debug file")
    return found


def faults_of_files(root: Path) -> list[str]:
    wanted = ["tessaline/auth.pyi", "tessaline/py.typed", "tessaline/libtessaline_http.so"]
    found = [f"{name} is missing" for name in wanted if not (root / name).is_file()]
    (information,) = root.glob("*.dist-info")
    licences = [information / "licenses" / name for name in ("LICENSE", "grafted/libcurl4")]
    found += [f"{path.name}: licence missing" for path in licences if not path.is_file()]
    here = str(Path.cwd()).encode()
    files = [path for path in root.rglob("*") if path.is_file()]
    found += [f"{path.name} tells where it was built" for path in files if here in path.read_bytes()]
    found += [f"{path.name} is in the wheel" for path in files if path.suffix == ".debug"]
    return found


def main(wheel: Path, debug: Path) -> int:
    with tempfile.TemporaryDirectory() as folder, zipfile.ZipFile(wheel) as archive:
        archive.extractall(folder)
        root = Path(folder)
        own = [elf.read(path) for path in sorted(root.glob("tessaline/*.so"))]
        grafted = {path.name: elf.read(path) for path in sorted(root.glob(f"{GRAFTED}/*"))}
        faults = faults_of_files(root)
        for library in [*own, *grafted.values()]:
            faults += [f"{library.path.name} {fault}" for fault in faults_of_library(library, grafted)]
        for library in own:
            faults += [f"{library.path.name} {fault}" for fault in faults_of_own(library, debug)]
    if len(own) != len(EXPORTS) or not grafted:
        faults.append(f"holds {len(own)} libraries of its own and {len(grafted)} others")
    if not TAG.search(wheel.name):
        faults.append("is tagged for another platform")
    for fault in faults:
        print(f"{wheel.name}: {fault}", file=sys.stderr)
    if faults:
        return 1
    size = wheel.stat().st_size / 1e6
    print(f"{wheel}: {size:.1f} MB, {len(grafted)} libraries; only glibc and its libgcc_s are left outside")
    return 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]), Path(sys.argv[2])))

"""Checks wheels, and prints one line about each.

python -m tools.wheels.check FOLDER_OF_DEBUG_FILES WHEEL...
"""

from __future__ import annotations

import json
import re
import sys
import tempfile
import zipfile
from pathlib import Path

from . import elf
from .libc import Libc
from .pins import pinned
from .targets import TARGETS, Platform, Target

MODULES = {"_native": "PyInit__native", "auth": "PyInit_auth"}
LIBRARY = "libtessaline_http.so"
MOST_PACKED, MOST_INSTALLED = 3_000_000, 7_000_000


def target_of(wheel: Path) -> Target | None:
    return next((known for known in TARGETS if wheel.name.endswith(f"-{known}.whl")), None)


def exports_of(target: Target) -> dict[str, str]:
    """The exports of each library in the wheel, by file name."""
    modules = {f"{name}.{target.soabi}.so": export for name, export in MODULES.items()}
    return modules | {LIBRARY: "tessaline_http_library"}


def parts_with(libc: Libc) -> set[str]:
    """The names of what is linked statically."""
    return {*(source.package for source in pinned()), *libc.runtime}


def tells_where(file: Path) -> bool:
    """Whether it contains a path of this checkout."""
    return str(Path.cwd()).encode() in file.read_bytes()


def faults_of_library(library: elf.Library, platform: Platform, export: str) -> list[str]:
    libc = platform.libc
    found = [f"needs {name}" for name in sorted(library.needed - libc.needed - libc.outside)]
    found += [f"has its own {name}" for name in sorted(libc.needed - library.needed)]
    if library.machine != platform.machine:
        found.append(f"is for {library.machine}")
    if library.glibc > libc.glibc:
        found.append(f"needs glibc {library.glibc[0]}.{library.glibc[1]}")
    if library.search_path:
        found.append(f"searches {library.search_path!r}")
    if library.exports != {export}:
        found.append(f"exports {sorted(library.exports)}")
    found += [f"has {name}" for name in sorted(library.sections) if name.startswith((".debug_", ".symtab"))]
    return found


def faults_of_debug(library: elf.Library, debug: Path) -> list[str]:
    file = debug / f"{library.path.name}.debug"
    if not (file.exists() and library.debugged_by(file)):
        return ["has no debug file"]
    return ["has a debug file that tells where it was built"] if tells_where(file) else []


def faults_of_files(root: Path, target: Target) -> list[str]:
    (information,) = root.glob("*.dist-info")
    licences = ["LICENSE", *(f"bundled/{name}" for name in parts_with(target.platform.libc))]
    wanted = [root / "tessaline/auth.pyi", root / "tessaline/py.typed"]
    wanted += [root / "tessaline" / name for name in exports_of(target)]
    wanted += [information / "licenses" / name for name in licences]
    found = [f"{path.relative_to(root)} is missing" for path in wanted if not path.is_file()]
    found += [
        f"{path.name} is in the wheel"
        for path in root.iterdir()
        if path.name not in ("tessaline", information.name)
    ]
    found += [f"{path.name} is in the wheel" for path in root.glob("tessaline/*.so*") if path not in wanted]
    files = [path for path in root.rglob("*") if path.is_file()]
    found += [f"{path.name} tells where it was built" for path in files if tells_where(path)]
    if (size := sum(path.stat().st_size for path in files)) > MOST_INSTALLED:
        found.append(f"takes {size} bytes when it is installed")
    return found + faults_of_list(information, target.platform.libc)


def faults_of_list(information: Path, libc: Libc) -> list[str]:
    """From the list of linked libraries."""
    file = information / "sboms/bundled.cdx.json"
    if not file.is_file():
        return [f"{file.name} is missing"]
    told = json.loads(file.read_text())
    listed = {part["name"]: part for part in told["components"]}
    sources = pinned()
    found = []
    if listed.keys() != parts_with(libc):
        found.append(f"{file.name} names {sorted(listed)}")
    for source in sources:
        part = listed.get(source.package, {})
        digests = [said["content"] for said in part.get("hashes", [])]
        if (part.get("version"), digests) != (source.upstream, [source.sha256[source.archive]]):
            found.append(f"{file.name} has not {source.package} {source.upstream} as it is pinned")
    return found


def faults_of(wheel: Path, debug: Path) -> list[str]:
    target = target_of(wheel)
    if target is None:
        return ["is tagged for another platform"]
    size = wheel.stat().st_size
    faults = [f"takes {size} bytes"] if size > MOST_PACKED else []
    with tempfile.TemporaryDirectory() as folder, zipfile.ZipFile(wheel) as archive:
        archive.extractall(folder)
        root = Path(folder)
        faults += faults_of_files(root, target)
        (information,) = root.glob("*.dist-info/WHEEL")
        if re.findall(r"^Tag: (.+)$", information.read_text(), re.MULTILINE) != [str(target)]:
            faults.append("says another tag inside")
        for name, export in exports_of(target).items():
            if (path := root / "tessaline" / name).is_file():
                library = elf.read(path)
                found = faults_of_library(library, target.platform, export)
                found += faults_of_debug(library, debug)
                faults += [f"{name} {fault}" for fault in found]
    return faults


def passes(wheel: Path, debug: Path) -> bool:
    faults = faults_of(wheel, debug / wheel.stem)
    for fault in faults:
        print(f"{wheel.name}: {fault}", file=sys.stderr)
    if faults:
        return False
    with zipfile.ZipFile(wheel) as archive:
        installed = sum(member.file_size for member in archive.infolist())
    sizes = f"{wheel.stat().st_size / 1e6:.1f} MB, {installed / 1e6:.1f} MB installed"
    print(f"{wheel}: {sizes}; only the C library is left outside")
    return True


def main(debug: Path, wheels: list[Path]) -> int:
    passed = [passes(wheel, debug) for wheel in wheels]
    return 0 if all(passed) else 1


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]), [Path(name) for name in sys.argv[2:]]))

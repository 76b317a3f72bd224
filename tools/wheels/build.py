"""Builds a wheel into dist, and its debug information into dist/debug.

python -m tools.wheels.build TARGET
"""

from __future__ import annotations

import shutil
import subprocess
import sys
from pathlib import Path

from . import targets
from .bundle import bundle
from .libraries import place_of
from .pins import headers
from .targets import Target

DIST = Path("dist")


def run(*command: str | Path) -> None:
    subprocess.run([sys.executable, "-m", *command], check=True)


def plain(target: Target, tree: Path, place: Path) -> None:
    """As the package's own build makes it."""
    (pin,) = [pin for pin in headers() if pin.name == target.interpreter]
    defined = {
        "CMAKE_TOOLCHAIN_FILE": place_of(target.platform).resolve() / "toolchain.cmake",
        "Python_INCLUDE_DIR": pin.folder(target.platform.architecture).resolve(),
        "TESSALINE_PORTABLE": "ON",
        "TESSALINE_SOABI": target.soabi,
    }
    settings = [f"cmake.define.{name}={value}" for name, value in defined.items()]
    settings += [f"build-dir={tree}", "cmake.build-type=Release", "install.strip=false"]
    told = [word for setting in settings for word in ("-C", setting)]
    run("build", "--wheel", "--no-isolation", "--outdir", place, ".", *told)


def main(target: Target) -> None:
    place, tree = Path("build/wheels", str(target)), Path("build/portable", str(target))
    shutil.rmtree(place, ignore_errors=True)
    plain(target, tree, place / "plain")
    (wheel,) = place.glob("plain/*.whl")
    run("wheel", "unpack", "--dest", place / "unpacked", wheel)
    (unpacked,) = place.glob("unpacked/*")
    bundle(unpacked, target)
    debug = DIST / "debug" / f"{unpacked.name}-{target}"
    debug.mkdir(parents=True)
    run("wheel", "pack", "--dest-dir", DIST, unpacked)
    for file in tree.glob("package/tessaline/*.debug"):
        shutil.copy(file, debug)


if __name__ == "__main__":
    main(targets.target(sys.argv[1]))

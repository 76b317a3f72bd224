"""Builds the static libraries for a wheel, once per set of inputs.

python -m tools.wheels.libraries PLATFORM
"""

from __future__ import annotations

import hashlib
import os
import shutil
import subprocess
import sys
import tomllib
from importlib.metadata import version
from pathlib import Path

from . import compiler, targets
from .libc import UNWINDER
from .pins import PINS, Source, pinned
from .targets import Platform

HERE = Path(__file__).resolve().parent
OPTIONS = HERE / "options.toml"
OPTIMISED = ["-O2", "-g0", "-fPIC"]


class Build:
    def __init__(self, place: Path, platform: Platform) -> None:
        self._place, self._platform = place.resolve(), platform
        self._prefix = self._place / "prefix"
        self._options = tomllib.loads(OPTIONS.read_text())
        self._environment = os.environ | {
            "PATH": f"{self._place}/bin:{os.environ['PATH']}",
            # It would be in the libraries, which are kept across commits.
            "SOURCE_DATE_EPOCH": "0",
        }

    def run(self, *command: str | Path, folder: Path | None = None) -> None:
        subprocess.run(command, cwd=folder or self._place, env=self._environment, check=True)

    def everything(self) -> None:
        sources = {source.package: source for source in pinned()}
        if self._platform.libc.has_unwinder:
            self.unwinder()
        self.openssl(sources["openssl"])
        self.with_cmake(sources["curl"])
        self.with_cmake(sources["libsecp256k1"])

    def unwinder(self) -> None:
        """What stands for the system's."""
        library = self._prefix / "lib" / UNWINDER
        library.parent.mkdir(parents=True)
        linked = ["-shared", "-O2", "-fPIC", "-fvisibility=default", "-nostdlib"]
        names = [f"-Wl,-soname,{UNWINDER}", f"-Wl,--version-script={HERE / 'unwinder.map'}"]
        self.run("zig-cc", *linked, *names, HERE / "unwinder.c", "-o", library)

    def openssl(self, source: Source) -> None:
        options = self._options[source.package]
        nowhere = options["place"]
        places = [f"--prefix={nowhere}", f"--openssldir={nowhere}", "--libdir=lib"]
        programs = ["CC=zig-cc", "AR=zig-ar", "RANLIB=zig-ranlib"]
        folder = self._place / source.package
        folder.mkdir()
        self.run(
            # The objects contain this path.
            *("perl", Path(os.path.relpath(source.folder.resolve(), folder), "Configure")),
            *(f"linux-{self._platform.machine}", *programs, *options["options"].split(), *places, *OPTIMISED),
            folder=folder,
        )
        parallel = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
        self.run("make", f"-j{parallel}", "build_libs", folder=folder)
        self.run("make", "install_dev", f"DESTDIR={folder}/installed", folder=folder)
        shutil.copytree(f"{folder}/installed{nowhere}", self._prefix, dirs_exist_ok=True)
        for file in self._prefix.glob("lib/pkgconfig/*.pc"):
            file.write_text(file.read_text().replace(nowhere, str(self._prefix)))

    def with_cmake(self, source: Source) -> None:
        values = {"off": "OFF", "on": "ON", "none": "none"}
        options = self._options[source.package].items()
        folder = self._place / source.package
        self.run(
            *("cmake", "-G", "Ninja", "-S", source.folder.resolve(), "-B", folder),
            f"-DCMAKE_TOOLCHAIN_FILE={self._place}/toolchain.cmake",
            *(f"-DCMAKE_INSTALL_PREFIX={self._prefix}", "-DCMAKE_INSTALL_LIBDIR=lib"),
            *("-DCMAKE_BUILD_TYPE=None", f"-DCMAKE_C_FLAGS={' '.join(OPTIMISED)}"),
            *(f"-D{name}={values[value]}" for value, names in options for name in names.split()),
        )
        self.run("cmake", "--build", folder, "--target", "install")


def stamp(platform: Platform) -> str:
    """The inputs of the libraries."""
    files = [PINS, OPTIONS, Path(__file__), Path(compiler.__file__), compiler.TOOLCHAIN]
    files += sorted(HERE.glob("unwinder.*"))
    digest = hashlib.sha256(b"".join(path.read_bytes() for path in files)).hexdigest()
    return f"{Path.cwd()} {platform.compiled} {version('ziglang')} {digest}"


def place_of(platform: Platform) -> Path:
    return Path("build/bundled", str(platform))


def main(platform: Platform) -> None:
    place = place_of(platform)
    done = place / "stamp"
    if not (done.exists() and done.read_text() == stamp(platform)):
        for old in (place, *Path("build/portable").glob(f"*-{platform}")):
            shutil.rmtree(old, ignore_errors=True)
        compiler.put_into(place, platform)
        Build(place, platform).everything()
        done.write_text(stamp(platform))
    compiler.put_into(place, platform)


if __name__ == "__main__":
    main(targets.platform(sys.argv[1]))

"""`make wheel` detects what it checks for."""

import os
import subprocess
import sys
import zipfile
from dataclasses import replace
from pathlib import Path

import pytest

from tessaline import auth
from tools.wheels import check, elf, libc, targets

pytestmark = pytest.mark.process

PACKAGE = Path(auth.__file__).parent
GOOD = elf.Library(
    path=Path("auth.so"),
    machine="x86_64",
    glibc=(2, 28),
    needed=frozenset({"libc.so.6", "libgcc_s.so.1"}),
    search_path="",
    exports=frozenset({"PyInit_auth"}),
    sections=frozenset({".text"}),
    build_id="0a",
    debug_link=None,
)


@pytest.mark.parametrize(
    ("fault", "bad"),
    [
        ("needs libcurl.so.4", replace(GOOD, needed=GOOD.needed | {"libcurl.so.4"})),
        ("needs libstdc++.so.6", replace(GOOD, needed=GOOD.needed | {"libstdc++.so.6"})),
        ("has its own libc.so.6", replace(GOOD, needed=frozenset({"libgcc_s.so.1"}))),
        ("has its own libgcc_s.so.1", replace(GOOD, needed=frozenset({"libc.so.6"}))),
        ("needs glibc 2.29", replace(GOOD, glibc=(2, 29))),
        ("is for aarch64", replace(GOOD, machine="aarch64")),
        ("searches '/usr/lib'", replace(GOOD, search_path="/usr/lib")),
        ("exports ['PyInit_auth', 'SSL_new']", replace(GOOD, exports=GOOD.exports | {"SSL_new"})),
        ("has .debug_info", replace(GOOD, sections=GOOD.sections | {".debug_info"})),
        ("has .symtab", replace(GOOD, sections=GOOD.sections | {".symtab"})),
    ],
)
def test_a_library_that_does_not_belong_into_a_wheel(fault: str, bad: elf.Library) -> None:
    platform = targets.Platform("x86_64")
    assert check.faults_of_library(GOOD, platform, "PyInit_auth") == []
    assert check.faults_of_library(bad, platform, "PyInit_auth") == [fault]


def test_a_library_for_musl_needs_musl_and_nothing_of_glibc() -> None:
    platform = targets.Platform("x86_64", libc.MUSL)
    good = replace(GOOD, glibc=(0, 0), needed=frozenset({"libc.so"}))
    assert check.faults_of_library(good, platform, "PyInit_auth") == []
    linked = replace(good, needed=frozenset())
    assert check.faults_of_library(linked, platform, "PyInit_auth") == ["has its own libc.so"]
    assert check.faults_of_library(GOOD, platform, "PyInit_auth") == [
        "needs libc.so.6",
        "needs libgcc_s.so.1",
        "has its own libc.so",
        "needs glibc 2.28",
    ]


def test_a_library_is_read() -> None:
    module = elf.read(Path(auth.__file__))
    assert "libc.so.6" in module.needed
    assert module.exports == {"PyInit_auth"}
    assert {".text", ".dynsym"} <= module.sections
    # explicit_bzero requires glibc 2.25.
    assert module.glibc >= (2, 25)


@pytest.mark.parametrize(
    "tag",
    ["cp313-cp313-linux_x86_64", "cp313-cp314-manylinux_2_28_x86_64", "cp313-cp313-manylinux_2_36_x86_64"],
)
def test_a_wheel_for_another_platform_is_refused(
    tag: str, tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    wheel = tmp_path / f"tessaline-0.1.0-{tag}.whl"
    assert check.main(tmp_path, [wheel]) == 1
    assert capsys.readouterr().err == f"{wheel.name}: is tagged for another platform\n"


def test_a_wheel_of_what_the_system_has_is_refused(
    tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    target = targets.here("{}.{}".format(*sys.version_info), os.uname().machine)
    wheel = tmp_path / f"tessaline-0.1.0-{target}.whl"
    with zipfile.ZipFile(wheel, "w") as archive:
        archive.writestr("tessaline-0.1.0.dist-info/METADATA", "Name: tessaline\n")
        archive.writestr("tessaline-0.1.0.dist-info/WHEEL", "Tag: py3-none-any\n")
        archive.writestr("tessaline.libs/libz.so.1", "")
        archive.writestr("tessaline/note", f"built in {Path.cwd()}")
        archive.writestr("tessaline/zeros", bytes(check.MOST_INSTALLED))
        for path in PACKAGE.glob("*.so"):
            archive.write(path, f"tessaline/{path.name}")
    assert check.main(tmp_path, [wheel]) == 1
    told = capsys.readouterr().err.replace(f"{wheel.name}: ", "").splitlines()
    assert set(told) >= {
        "tessaline/auth.pyi is missing",
        "tessaline-0.1.0.dist-info/licenses/LICENSE is missing",
        "tessaline-0.1.0.dist-info/licenses/bundled/openssl is missing",
        "bundled.cdx.json is missing",
        "tessaline.libs is in the wheel",
        "note tells where it was built",
        "libtessaline_http.so needs libcurl.so.4",
        "libtessaline_http.so has no debug file",
        "says another tag inside",
    }
    assert any("bytes when it is installed" in line for line in told)


def test_each_wheel_is_checked_though_the_first_has_failed(
    tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    wheels = [tmp_path / f"tessaline-0.1.0-{tag}.whl" for tag in ("py3-none-any", "py2-none-any")]
    assert check.main(tmp_path, wheels) == 1
    assert [line.split(":")[0] for line in capsys.readouterr().err.splitlines()] == [
        wheel.name for wheel in wheels
    ]


@pytest.mark.parametrize("place", ["/build", str(Path.cwd())])
def test_debug_information_that_tells_where_it_was_built_is_refused(place: str, tmp_path: Path) -> None:
    source, library = tmp_path / "a.cpp", tmp_path / "a.so"
    source.write_text('#include <cstdio>\nint f() { return std::puts(""); }\n')
    told = ["-g", f"-fdebug-prefix-map={tmp_path}={place}", "-Wl,--build-id=sha1"]
    compiler = os.environ.get("CXX", "g++")
    for command in (
        [compiler, "-shared", "-fPIC", *told, str(source), "-o", str(library)],
        ["objcopy", "--only-keep-debug", str(library), f"{library}.debug"],
        ["objcopy", "--strip-unneeded", f"--add-gnu-debuglink={library}.debug", str(library)],
    ):
        subprocess.run(command, check=True, cwd=tmp_path, timeout=60)
    faults = check.faults_of_debug(elf.read(library), tmp_path)
    assert faults == ([] if place == "/build" else ["has a debug file that tells where it was built"])

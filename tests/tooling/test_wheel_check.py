"""What `make wheel` looks at, it sees."""

import zipfile
from dataclasses import replace
from pathlib import Path

import pytest

from tessaline import auth
from tools.wheels import check, elf

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
        ("needs libcurl.so.4", replace(GOOD, needed=frozenset({"libcurl.so.4"}))),
        ("needs libstdc++.so.6", replace(GOOD, needed=GOOD.needed | {"libstdc++.so.6"})),
        ("needs glibc 2.29", replace(GOOD, glibc=(2, 29))),
        ("is for aarch64", replace(GOOD, machine="aarch64")),
        ("searches '/usr/lib'", replace(GOOD, search_path="/usr/lib")),
        ("exports ['PyInit_auth', 'SSL_new']", replace(GOOD, exports=GOOD.exports | {"SSL_new"})),
        ("has .debug_info", replace(GOOD, sections=GOOD.sections | {".debug_info"})),
        ("has .symtab", replace(GOOD, sections=GOOD.sections | {".symtab"})),
    ],
)
def test_a_library_that_does_not_belong_into_a_wheel(fault: str, bad: elf.Library) -> None:
    assert check.faults_of_library(GOOD, "x86_64", "PyInit_auth") == []
    assert check.faults_of_library(bad, "x86_64", "PyInit_auth") == [fault]


def test_a_library_is_read() -> None:
    module = elf.read(Path(auth.__file__))
    assert "libc.so.6" in module.needed
    assert module.exports == {"PyInit_auth"}
    assert {".text", ".dynsym"} <= module.sections
    # explicit_bzero is of glibc 2.25.
    assert module.glibc >= (2, 25)


@pytest.mark.parametrize(
    "tag",
    ["cp313-cp313-linux_x86_64", "cp313-cp314-manylinux_2_28_x86_64", "cp313-cp313-manylinux_2_36_x86_64"],
)
def test_a_wheel_for_another_platform_is_refused(
    tag: str, tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    wheel = tmp_path / f"tessaline-0.1.0-{tag}.whl"
    assert check.main(wheel, tmp_path) == 1
    assert capsys.readouterr().err == f"{wheel.name}: is tagged for another platform\n"


def test_a_wheel_of_what_the_system_has_is_refused(
    tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    module = Path(auth.__file__).name
    _, soabi, _ = module.split(".")
    _, python, machine, *_ = soabi.split("-")
    wheel = tmp_path / f"tessaline-0.1.0-cp{python}-cp{python}-manylinux_2_28_{machine}.whl"
    with zipfile.ZipFile(wheel, "w") as archive:
        archive.writestr("tessaline-0.1.0.dist-info/METADATA", "Name: tessaline\n")
        archive.writestr("tessaline-0.1.0.dist-info/WHEEL", f"Tag: cp{python}-cp{python}-linux_{machine}\n")
        archive.writestr("tessaline.libs/libz.so.1", "")
        archive.writestr("tessaline/note", f"built in {Path.cwd()}")
        archive.writestr("tessaline/zeros", bytes(check.MOST_INSTALLED))
        for path in PACKAGE.glob("*.so"):
            archive.write(path, f"tessaline/{path.name}")
    assert check.main(wheel, tmp_path) == 1
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

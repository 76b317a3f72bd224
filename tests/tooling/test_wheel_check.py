"""What `make wheel` and `make test-wheel` look at, they see."""

import zipfile
from pathlib import Path

import pytest

from tessaline import auth
from tools.wheels import check, elf
from tools.wheels.opened_libraries import is_of_the_interpreter, strangers

pytestmark = pytest.mark.process

PACKAGE = Path(auth.__file__).parent
MAPS = """\
7f0000000000-7f0000001000 r-xp 00000000 08:01 11 /venv/lib/tessaline.libs/libcurl-0a1b2c3d.so.4
7f0000001000-7f0000002000 r-xp 00000000 08:01 12 /usr/lib/libc.so.6
7f0000002000-7f0000003000 r-xp 00000000 08:01 13 /usr/lib/libssl.so.3
7f0000003000-7f0000004000 r-xp 00000000 08:01 14 /usr/lib/libcurl.so.4.8.0
7f0000004000-7f0000005000 r-xp 00000000 08:01 15 /venvious/lib/libodd.so (deleted)
7f0000005000-7f0000006000 rw-p 00000000 00:00 0 [heap]
7f0000006000-7f0000007000 rw-p 00000000 00:00 0
7f0000007000-7f0000008000 r--s 00000000 08:01 16 /usr/lib/locale/locale-archive
"""


def library(name: str, **said: object) -> elf.Library:
    shown: dict[str, object] = {
        "path": Path(name),
        "needed": frozenset({"libc.so.6"}),
        "search_path": "",
        "exports": frozenset(),
        "sections": frozenset({".text"}),
        "build_id": "0a",
        "debug_link": None,
    }
    return elf.Library(**(shown | said))  # type: ignore[arg-type]


def test_a_library_of_the_system_is_a_stranger() -> None:
    assert strangers(MAPS, "/venv") == ["/usr/lib/libcurl.so.4.8.0", "/venvious/lib/libodd.so (deleted)"]
    assert is_of_the_interpreter("libcrypto.so.3")
    assert not is_of_the_interpreter("libcrypto-0a1b2c3d.so.3")


def test_what_a_grafted_library_may_need() -> None:
    grafted = {"libz-1.so": library("tessaline.libs/libz-1.so")}
    good = library("tessaline.libs/a.so", needed=frozenset({"libz-1.so"}), search_path="$ORIGIN")
    assert check.faults_of_library(grafted["libz-1.so"], grafted) == []
    assert check.faults_of_library(good, grafted) == []
    for fault, bad in {
        "needs libz.so.1": library("tessaline.libs/a.so", needed=frozenset({"libz.so.1"})),
        "searches ''": library("tessaline.libs/a.so", needed=frozenset({"libz-1.so"})),
        "searches '/usr/lib'": library("tessaline.libs/a.so", search_path="/usr/lib"),
        "searches '$ORIGIN'": library("tessaline/a.so", needed=good.needed, search_path="$ORIGIN"),
        "has debug information": library("tessaline.libs/a.so", sections=frozenset({".debug_info"})),
    }.items():
        assert check.faults_of_library(bad, grafted) == [fault]


def test_a_library_is_read() -> None:
    module = elf.read(Path(auth.__file__))
    assert "libc.so.6" in module.needed
    assert module.exports == {"PyInit_auth"}
    assert {".text", ".dynsym"} <= module.sections


def test_a_wheel_that_was_not_repaired_is_refused(tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    wheel = tmp_path / "tessaline-0.1.0-cp313-cp313-linux_x86_64.whl"
    with zipfile.ZipFile(wheel, "w") as archive:
        archive.writestr("tessaline-0.1.0.dist-info/METADATA", "Name: tessaline\n")
        archive.writestr("tessaline/note", f"built in {Path.cwd()}")
        for path in PACKAGE.glob("*.so"):
            archive.write(path, f"tessaline/{path.name}")
    assert check.main(wheel, tmp_path) == 1
    told = capsys.readouterr().err.replace(f"{wheel.name}: ", "").splitlines()
    assert set(told) >= {
        "tessaline/auth.pyi is missing",
        "LICENSE: licence missing",
        "libcurl4: licence missing",
        "note tells where it was built",
        "libtessaline_http.so needs libcurl.so.4",
        "libtessaline_http.so has no debug file",
        "is tagged for another platform",
        "holds 3 libraries of its own and 0 others",
    }

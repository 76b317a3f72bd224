"""The Pythons and platforms for which there are wheels."""

import platform
import re
import sysconfig
from pathlib import Path

import pytest

from tools.wheels import compiler, libc, pins, targets

pytestmark = pytest.mark.process

RUNNING = ".".join(platform.python_version_tuple()[:2])


def test_there_is_a_wheel_for_each_python_on_each_platform() -> None:
    assert {str(target) for target in targets.TARGETS} == {
        f"cp3{minor}-cp3{minor}-{tag}"
        for minor in (13, 14, 15)
        for tag in ("manylinux_2_28_x86_64", "manylinux_2_28_aarch64", "musllinux_1_2_x86_64")
    }
    assert all(targets.target(str(target)) == target for target in targets.TARGETS)
    assert all(targets.platform(str(known)) == known for known in targets.PLATFORMS)


def test_without_being_told_it_is_the_one_for_this_python_and_machine(
    capsys: pytest.CaptureFixture[str],
) -> None:
    targets.main([])
    (name,) = capsys.readouterr().out.split()
    assert targets.target(name).python == RUNNING
    assert targets.target(name).soabi == sysconfig.get_config_var("SOABI")
    targets.main(["--all"])
    assert capsys.readouterr().out.split() == list(map(str, targets.TARGETS))


def test_modules_are_named_as_pythons_with_that_c_library_look_for_them() -> None:
    suffixes = {target.soabi for target in targets.TARGETS if target.interpreter == "cp314"}
    machines = ("x86_64-linux-gnu", "aarch64-linux-gnu", "x86_64-linux-musl")
    assert suffixes == {f"cpython-314-{machine}" for machine in machines}


@pytest.mark.parametrize(("python", "machine"), [("3.16", "x86_64"), ("3.13", "riscv64")])
def test_a_python_or_machine_without_a_wheel_is_told_what_there_is(python: str, machine: str) -> None:
    told = f"Wheels are for .*3.13, 3.14, 3.15 .*x86_64 and aarch64, not for {re.escape(python)} on {machine}"
    with pytest.raises(SystemExit, match=told):
        targets.here(python, machine)


def test_each_python_has_its_headers_pinned_for_each_machine() -> None:
    pinned = {pin.python: pin for pin in pins.headers()}
    for target in targets.TARGETS:
        pin = pinned[target.python]
        assert pin.name == target.interpreter
        assert pin.version.startswith(f"{target.python}.")
        file = pin.file(target.platform.architecture)
        assert file.name == f"{pin.package}_{pin.version}_{target.platform.architecture}.deb"
        assert re.fullmatch("[0-9a-f]{64}", pin.sha256[file.name])


@pytest.mark.parametrize("known", targets.PLATFORMS, ids=str)
def test_what_compiles_for_a_platform_knows_it_and_tells_no_path(
    known: targets.Platform, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(compiler, "zig", lambda: Path("/zig"))
    compiler.put_into(tmp_path, known)
    program = (tmp_path / "bin/zig-c++").read_text()
    targeted = "musl" if known.libc is libc.MUSL else "gnu.2.28"
    assert f"-target {known.machine}-linux-{targeted} " in program
    assert f"+-ffile-prefix-map={Path.cwd()}/=/" in program
    toolchain = (tmp_path / "toolchain.cmake").read_text()
    assert f"set(CMAKE_SYSTEM_PROCESSOR {known.machine})" in toolchain
    assert "@" not in toolchain
    # glibc and its unwinder belong together; musl has none.
    assert ("libgcc_s" in toolchain) == (known.libc is libc.GLIBC)

"""Where the sources of a wheel come from, and which versions are pinned."""

import re
import subprocess
from dataclasses import replace
from hashlib import sha256
from pathlib import Path

import pytest

from tools.wheels import archive, pins, renew, sources, targets

pytestmark = pytest.mark.process

SITES = (
    "http://mirror.example/debian|bookworm\n"
    "http://mirror.example/debian|bookworm-updates\n"
    "http://mirror.example/debian|bookworm-backports\n"
    "http://mirror.example/debian-security|bookworm-security\n"
)


def record(version: str, digest: str) -> str:
    """As the package client shows a source package."""
    own = [f"{version}.dsc", f"{version}.debian.tar.xz"]
    names = [f"curl_{rest}" for rest in [*own, "8.14.1.orig.tar.gz", "8.14.1.orig.tar.gz.asc"]]
    listed = "".join(f" {digest} 10 {name}\n" for name in names)
    return f"Package: curl\nVersion: {version}\nChecksums-Sha256:\n{listed}Directory: pool/main/c/curl\n"


def binary(version: str, architecture: str, digest: str) -> str:
    """As it shows another package."""
    file = f"pool/main/p/python3.15/libpython3.15-dev_{version}_{architecture}.deb"
    return f"Package: libpython3.15-dev\nVersion: {version}\nFilename: {file}\nSHA256: {digest}\n"


OLD, NEW = "8.14.1-2+deb13u9", "8.14.1-2+deb13u10"
RECORDS = f"{record(OLD, '9' * 64)}\n{record(NEW, 'a' * 64)}\n"


class Scripted(archive.Archive):
    """Lists these records, and serves all but some versions."""

    def __init__(self, listed: str = "", missing: tuple[str, ...] = ()) -> None:
        self._listed, self._missing = listed, missing

    def said(self, program: str, *arguments: str) -> str:
        if program == "apt-cache":
            return self._listed
        if any(argument.endswith(f"={version}") for argument in arguments for version in self._missing):
            raise archive.ArchiveError("404\nand more")
        return ""


def curl() -> pins.Source:
    (found,) = [source for source in pins.pinned() if source.package == "curl"]
    return found


def test_the_pins_are_whole() -> None:
    pinned = pins.pinned()
    assert {source.package for source in pinned} == {"openssl", "curl", "libsecp256k1"}
    for source in pinned:
        assert source.archive.startswith(f"{source.package}_{source.upstream}.orig.tar.")
        assert len(source.sha256) == 2
        assert all(re.fullmatch("[0-9a-f]{64}", digest) for digest in source.sha256.values())


def test_sources_come_from_where_this_machine_gets_its_packages() -> None:
    assert archive.archive_lines(SITES, "deb-src", "trixie", Path("/keys")) == [
        "deb-src [signed-by=/keys] http://mirror.example/debian trixie main",
        "deb-src [signed-by=/keys] http://mirror.example/debian trixie-updates main",
        "deb-src [signed-by=/keys] http://mirror.example/debian-security trixie-security main",
    ]


def test_headers_come_from_there_for_both_machines_and_sid_has_no_updates() -> None:
    assert archive.archive_lines(SITES, "deb", "sid", Path("/keys")) == [
        "deb [arch=amd64,arm64 signed-by=/keys] http://mirror.example/debian sid main"
    ]


def test_the_newest_version_is_first() -> None:
    assert [version for version, _ in renew.newest_first(RECORDS)] == [NEW, OLD]


def test_headers_of_one_machine_alone_are_passed_over() -> None:
    whole = [binary("3.15.2-1", "amd64", "b" * 64), binary("3.15.2-1", "arm64", "c" * 64)]
    newer = binary("3.15.2-2", "amd64", "d" * 64)
    files = {
        "libpython3.15-dev_3.15.2-1_amd64.deb": "b" * 64,
        "libpython3.15-dev_3.15.2-1_arm64.deb": "c" * 64,
    }
    assert renew.newest_first("\n".join([newer, *whole])) == [("3.15.2-1", files)]


def test_a_version_is_pinned_and_nothing_else_changes(tmp_path: Path) -> None:
    version, files = renew.newest_first(RECORDS)[0]
    after = tmp_path / "sources.toml"
    after.write_text(renew.renewed(pins.PINS.read_text(), "curl", version, files))
    changed = {source.package: source for source in pins.pinned(after)}
    assert changed["curl"] == replace(
        curl(),
        version=NEW,
        sha256={f"curl_{NEW}.debian.tar.xz": "a" * 64, "curl_8.14.1.orig.tar.gz": "a" * 64},
    )
    others = {source.package: source for source in pins.pinned() if source.package != "curl"}
    assert {name: changed[name] for name in others} == others


def test_headers_are_pinned_in_the_same_way(tmp_path: Path) -> None:
    after = tmp_path / "headers.toml"
    after.write_text(renew.renewed(pins.HEADERS.read_text(), "cp314", "3.14.99-1", {"a": "1", "b": "2"}))
    before = pins.headers()
    assert pins.headers(after) == [
        replace(pin, version="3.14.99-1", sha256={"a": "1", "b": "2"}) if pin.name == "cp314" else pin
        for pin in before
    ]


def test_a_version_that_is_listed_but_not_served_is_named_and_passed_over(
    monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    served: list[str] = []
    monkeypatch.setattr(renew, "is_whole", lambda pin: pin.version in served)
    known = Scripted(RECORDS, missing=(NEW,))
    monkeypatch.setattr(known, "bring", lambda pin: (Scripted.bring(known, pin), served.append(pin.version)))
    assert renew.newest(known, curl()).version == OLD
    assert capsys.readouterr().err == f"curl {NEW} is listed, but cannot be had (yet): 404\n"


def test_an_archive_that_serves_none_is_told_of() -> None:
    with pytest.raises(SystemExit, match="Debian's trixie has no curl that could be had"):
        renew.newest(Scripted(RECORDS, missing=(OLD, NEW)), curl())


def test_a_pin_that_the_archive_has_not_is_named_with_what_to_do() -> None:
    pin = curl()
    with pytest.raises(SystemExit, match=re.escape(pin.version)) as caught:
        sources.fetch(Scripted(missing=(pin.version,)), pin)
    assert "make wheel-sources" in str(caught.value)
    assert "404" in str(caught.value)


def test_what_has_other_checksums_is_refused(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(archive, "PLACE", tmp_path)
    pin = replace(curl(), sha256={"a.tar.gz": sha256(b"good").hexdigest()})
    (tmp_path / "a.tar.gz").write_bytes(b"good")
    sources.fetch(Scripted(), pin)
    (tmp_path / "a.tar.gz").write_bytes(b"evil")
    with pytest.raises(SystemExit, match="its checksums differ"):
        sources.fetch(Scripted(), pin)


@pytest.mark.parametrize("platform", targets.PLATFORMS, ids=str)
def test_the_headers_of_a_machine_and_of_all_become_one_folder(
    platform: targets.Platform, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    own = f"usr/include/{platform.triplet}/python3.15/pyconfig.h"
    package = tmp_path / "package"
    for name in (
        "usr/include/python3.15/Python.h",
        "usr/include/python3.15/cpython/object.h",
        "usr/include/python3.15/pyconfig.h",
        own,
        "usr/lib/python3.15/config.c",
        "DEBIAN/control",
    ):
        (package / name).parent.mkdir(parents=True, exist_ok=True)
        (package / name).write_text(name)
    control = "Package: headers\nVersion: 1\nArchitecture: all\nMaintainer: a <a@b.example>\nDescription: c\n"
    (package / "DEBIAN/control").write_text(control)
    monkeypatch.setattr(pins, "PLACE", tmp_path)
    pin = pins.Headers("cp315", "sid", "3.15.2-1", {f"headers_3.15.2-1_{platform.architecture}.deb": ""})
    build = ["dpkg-deb", "--root-owner-group", "--build", str(package), str(pin.file(platform.architecture))]
    subprocess.run(build, check=True, capture_output=True, timeout=60)
    sources.unpack_headers(pin, platform.architecture)
    folder = pin.folder(platform.architecture)
    found = {str(path.relative_to(folder)): path.read_text() for path in folder.rglob("*.*")}
    assert found == {
        "Python.h": "usr/include/python3.15/Python.h",
        "cpython/object.h": "usr/include/python3.15/cpython/object.h",
        "pyconfig.h": own,
    }

"""Where the sources of what a wheel holds come from, and which ones are pinned."""

import re
from pathlib import Path

import pytest

from tools.wheels import pins, sources

pytestmark = pytest.mark.process


def record(version: str, digest: str) -> str:
    """As the package client shows a source."""
    own = [f"{version}.dsc", f"{version}.debian.tar.xz"]
    names = [f"curl_{rest}" for rest in [*own, "8.14.1.orig.tar.gz", "8.14.1.orig.tar.gz.asc"]]
    listed = "".join(f" {digest} 10 {name}\n" for name in names)
    return f"Package: curl\nVersion: {version}\nChecksums-Sha256:\n{listed}Directory: pool/main/c/curl\n"


RECORDS = f"{record('8.14.1-2+deb13u9', '9' * 64)}\n{record('8.14.1-2+deb13u10', 'a' * 64)}\n"


def test_the_pins_are_whole() -> None:
    pinned = pins.pinned()
    assert {source.package for source in pinned} == {"openssl", "curl", "libsecp256k1"}
    for source in pinned:
        assert source.archive.startswith(f"{source.package}_{source.upstream}.orig.tar.")
        assert len(source.sha256) == 2
        assert all(re.fullmatch("[0-9a-f]{64}", digest) for digest in source.sha256.values())


def test_sources_come_from_where_this_machine_gets_its_packages() -> None:
    told = (
        "http://mirror.example/debian|bookworm\n"
        "http://mirror.example/debian|bookworm-updates\n"
        "http://mirror.example/debian|bookworm-backports\n"
        "http://mirror.example/debian-security|bookworm-security\n"
    )
    assert sources.archive_lines(told, "trixie", Path("/keys")) == [
        "deb-src [signed-by=/keys] http://mirror.example/debian trixie main",
        "deb-src [signed-by=/keys] http://mirror.example/debian trixie-updates main",
        "deb-src [signed-by=/keys] http://mirror.example/debian-security trixie-security main",
    ]


def test_the_newest_version_is_pinned_and_nothing_else_changes(tmp_path: Path) -> None:
    before = pins.PINS.read_text()
    after = tmp_path / "sources.toml"
    after.write_text(sources.renewed(before, "curl", sources.newest(RECORDS)))
    changed = {source.package: source for source in pins.pinned(after)}
    assert changed["curl"].version == "8.14.1-2+deb13u10"
    assert changed["curl"].sha256 == {
        "curl_8.14.1-2+deb13u10.debian.tar.xz": "a" * 64,
        "curl_8.14.1.orig.tar.gz": "a" * 64,
    }
    others = {source.package: source for source in pins.pinned() if source.package != "curl"}
    assert {name: changed[name] for name in others} == others


def test_a_version_that_the_archive_has_not_is_named_with_what_to_do() -> None:
    class Gone(sources.Archive):
        def __init__(self) -> None: ...

        def said(self, program: str, *arguments: str) -> str:
            raise sources.ArchiveError("404")

    (curl,) = [source for source in pins.pinned() if source.package == "curl"]
    with pytest.raises(SystemExit, match=re.escape(curl.version)) as caught:
        sources.fetch(Gone(), curl)
    assert "make wheel-sources" in str(caught.value)
    assert "404" in str(caught.value)

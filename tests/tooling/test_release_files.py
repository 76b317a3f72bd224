"""Version, licence and layout of the sources are the same in all files."""

import configparser
import re
import tomllib
from typing import Any

import pytest

import devserver
import tessaline
from tessaline import auth
from transport.raw import RawServer

from .project import ROOT, own_files

pytestmark = pytest.mark.process

RELEASE = re.compile(r"^## \[(\d+\.\d+\.\d+)\] - (?:Unreleased|\d{4}-\d\d-\d\d)$", re.MULTILINE)
# Third-party tables and inputs of the fuzzers, kept byte for byte.
KEPT_AS_THEY_ARE = ("tests/vectors/data/", "tests/fuzz/corpus/")


def read(name: str) -> str:
    return (ROOT / name).read_text()


def pyproject() -> dict[str, Any]:
    return tomllib.loads(read("pyproject.toml"))


def editor_settings(pattern: str) -> dict[str, str]:
    parser = configparser.ConfigParser()
    parser.read_string("[top]\n" + read(".editorconfig"))
    return dict(parser[pattern])


def only(pattern: str, text: str) -> str:
    (found,) = re.findall(pattern, text, re.MULTILINE)
    return str(found)


def test_every_file_names_the_same_version() -> None:
    version = pyproject()["project"]["version"]
    assert tessaline.__version__ == version
    assert devserver.__version__ == version
    assert only(r"^project\(tessaline VERSION (\S+) ", read("CMakeLists.txt")) == version
    assert RELEASE.findall(read("CHANGELOG.md"))[0] == version


def test_requests_name_that_version() -> None:
    server = RawServer()
    try:
        auth._default_http_transport("GET", server.url)
    finally:
        server.stop()
    sent = [line for line in server.header_lines() if line.lower().startswith("user-agent:")]
    assert sent == [f"User-Agent: tessaline/{pyproject()['project']['version']}"]


def test_every_heading_of_the_changelog_is_a_release_or_what_changed_in_it() -> None:
    changes = {"Added", "Changed", "Deprecated", "Removed", "Fixed", "Security"}
    text = read("CHANGELOG.md")
    releases = RELEASE.findall(text)
    assert len(releases) == len(re.findall(r"^## ", text, re.MULTILINE))
    by_number = sorted(releases, key=lambda release: tuple(map(int, release.split("."))), reverse=True)
    assert releases == by_number
    assert set(re.findall(r"^### (.*)$", text, re.MULTILINE)) <= changes


def test_the_licence_is_the_one_that_the_package_names() -> None:
    metadata = pyproject()["project"]
    assert metadata["license"] == "MIT"
    texts = [read(name) for name in metadata["license-files"]]
    assert [text.splitlines()[0] for text in texts] == ["MIT License"]
    assert "Copyright (c) 2026 the tessaline authors" in texts[0]


def test_editors_are_told_what_the_formatters_do() -> None:
    python, native = editor_settings("*.{py,pyi}"), editor_settings("*.{cpp,hpp}")
    assert int(python["max_line_length"]) == pyproject()["tool"]["ruff"]["line-length"]
    assert python["indent_size"] == "4"
    assert native["max_line_length"] == only(r"^ColumnLimit: (\d+)$", read(".clang-format"))
    assert editor_settings("*")["indent_size"] == only(r"^IndentWidth: (\d+)$", read(".clang-format"))


def test_files_are_as_editors_are_told_to_leave_them() -> None:
    for path in own_files():
        name = str(path.relative_to(ROOT))
        data = path.read_bytes()
        if name.startswith(KEPT_AS_THEY_ARE) or not data or b"\0" in data:
            continue
        text = data.decode()
        assert text.endswith("\n"), name
        assert "\r" not in text, name
        assert not re.search(r"[ \t]$", text, re.MULTILINE), name

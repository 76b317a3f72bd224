"""A key from a file that other users cannot read."""

from __future__ import annotations

import errno
import os
import secrets
import socket
import stat
import threading
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

from tessaline.auth import InvalidKeyError
from tessaline.keys import ReadableBy, from_file
from tests.shared.threads import join_all

from .discretion import shows

# Each test has its own key, and comparisons are made so that none shows in a failure.
KEY = secrets.token_hex(32)


@pytest.fixture
def key_file(tmp_path: Path) -> Path:
    path = tmp_path / "wallet.key"
    path.write_text(f"{KEY}\n")
    path.chmod(0o600)
    return path


@pytest.fixture(autouse=True)
def no_descriptor_left() -> Iterator[None]:
    before = os.listdir("/proc/self/fd")
    yield
    assert len(os.listdir("/proc/self/fd")) == len(before)


def reads(path: Any, **options: Any) -> bool:
    return from_file(path, **options) == KEY


def refused(path: Path, readable_by: ReadableBy = "owner") -> PermissionError:
    with pytest.raises(PermissionError) as caught:
        from_file(path, readable_by=readable_by)
    assert not shows(caught.value, KEY)
    return caught.value


@pytest.mark.parametrize("end", ["", "\n", "\r\n", "\r"])
@pytest.mark.parametrize("prefix", ["", "0x"])
def test_one_line_end_is_left_out(key_file: Path, prefix: str, end: str) -> None:
    key_file.write_bytes((prefix + KEY + end).encode())
    assert reads(key_file)
    assert reads(str(key_file))


@pytest.mark.parametrize("around", ["{}\n\n", "\n{}", "{} ", "\ufeff{}", "'{}'", "key={}", "{}{}"])
def test_nothing_else_is(key_file: Path, around: str) -> None:
    key_file.write_text(around.format(KEY, KEY))
    with pytest.raises(InvalidKeyError) as caught:
        from_file(key_file)
    assert f"it was read from the file {key_file}" in caught.value.__notes__
    assert not shows(caught.value, KEY)


@pytest.mark.parametrize("content", [b"", b"\n"])
def test_an_empty_file_is_called_empty(key_file: Path, content: bytes) -> None:
    key_file.write_bytes(content)
    with pytest.raises(InvalidKeyError) as caught:
        from_file(key_file)
    assert caught.value.__notes__ == [f"the file {key_file} is empty"]


@pytest.mark.parametrize("content", [b"\xff\xfe\x00" * 7, bytes(1 << 20)], ids=["no text", "a megabyte"])
def test_other_files_hold_no_key(key_file: Path, content: bytes) -> None:
    key_file.write_bytes(content)
    with pytest.raises(InvalidKeyError):
        from_file(key_file)


# Who may read it


@pytest.mark.parametrize("mode", [0o600, 0o400, 0o700, 0o500])
def test_a_file_of_the_owners_alone_is_read(key_file: Path, mode: int) -> None:
    key_file.chmod(mode)
    assert reads(key_file)


@pytest.mark.parametrize("mode", [0o640, 0o604, 0o644, 0o440, 0o444, 0o620, 0o602, 0o610, 0o777])
def test_one_that_others_may_use_is_refused_with_both_modes(key_file: Path, mode: int) -> None:
    key_file.chmod(mode)
    error = refused(key_file)
    assert error.errno == errno.EACCES
    assert error.filename == str(key_file)
    assert (
        error.strerror == f"others may read or change it: its mode is {mode:04o}, and should be 0600 or 0400"
    )
    assert any("chmod 600" in note for note in error.__notes__)


@pytest.mark.parametrize(
    ("readable_by", "good", "bad"),
    [
        ("group", [0o600, 0o640, 0o440], [0o660, 0o644, 0o444, 0o641]),
        ("all", [0o600, 0o640, 0o644, 0o444], [0o664, 0o646, 0o666]),
    ],
)
def test_who_else_may_read_it_can_be_said(
    key_file: Path, readable_by: ReadableBy, good: list[int], bad: list[int]
) -> None:
    for mode in good:
        key_file.chmod(mode)
        assert reads(key_file, readable_by=readable_by)
    for mode in bad:
        key_file.chmod(mode)
        assert f"its mode is {mode:04o}" in str(refused(key_file, readable_by))


@pytest.mark.parametrize(
    ("program", "owner", "good"), [(7, 7, True), (7, 0, True), (0, 0, True), (7, 8, False), (0, 8, False)]
)
def test_whose_it_may_be(
    key_file: Path, monkeypatch: pytest.MonkeyPatch, program: int, owner: int, good: bool
) -> None:
    stat_of = os.fstat

    def owned(descriptor: int) -> os.stat_result:
        fields = list(stat_of(descriptor))
        fields[stat.ST_UID] = owner
        return os.stat_result(fields)

    monkeypatch.setattr(os, "fstat", owned)
    monkeypatch.setattr(os, "geteuid", lambda: program)
    assert reads(key_file, readable_by="group")
    if good:
        assert reads(key_file)
        return
    error = refused(key_file)
    assert error.errno == errno.EACCES
    assert str(error.strerror).startswith(f"it belongs to another user (uid {owner})")
    assert any("chown" in note for note in error.__notes__)


def test_nobody_else_can_be_said(key_file: Path) -> None:
    with pytest.raises(ValueError, match='"owner", "group" or "all"'):
        from_file(key_file, readable_by="everybody")  # type: ignore[arg-type]


def test_a_link_counts_as_what_it_leads_to(key_file: Path, tmp_path: Path) -> None:
    link = tmp_path / "link"
    link.symlink_to(key_file)
    assert reads(link)
    key_file.chmod(0o644)
    refused(link)


class Swapped:
    """`os.open`, which replaces the file at the path as soon as it has opened it."""

    def __init__(self, path: Path, other: Path) -> None:
        self.path, self.other, self.calls = path, other, 0
        self.open: Callable[..., int] = os.open

    def __call__(self, path: Any, *arguments: Any, **named: Any) -> int:
        opened = self.open(path, *arguments, **named)
        if path == str(self.path):
            self.calls += 1
            os.replace(self.other, self.path)
        return opened


@pytest.mark.parametrize(("opened", "replaced_by", "good"), [(0o600, 0o644, True), (0o644, 0o600, False)])
def test_the_opened_file_is_looked_at_and_not_what_is_at_the_path_then(
    key_file: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch, opened: int, replaced_by: int, good: bool
) -> None:
    other = tmp_path / "other"
    other.write_text("not a key")
    other.chmod(replaced_by)
    key_file.chmod(opened)
    swapped = Swapped(key_file, other)
    monkeypatch.setattr(os, "open", swapped)
    if good:
        assert reads(str(key_file))
    else:
        refused(Path(key_file))
    assert swapped.calls == 1


# Other types of files


def write(descriptor: int, text: str) -> None:
    with open(descriptor, "w") as file:
        file.write(text)


def test_a_shells_pipe_is_read_to_its_end() -> None:
    reading, writing = os.pipe()
    halves = [KEY[:20], f"{KEY[20:]}\n"]
    os.write(writing, halves[0].encode())
    writer = threading.Thread(target=write, args=(writing, halves[1]), daemon=True)
    writer.start()
    assert reads(f"/dev/fd/{reading}")
    join_all([writer])
    os.close(reading)


def test_a_named_pipe_is_a_file_like_others(tmp_path: Path) -> None:
    path = tmp_path / "pipe"
    os.mkfifo(path, 0o600)

    def serve() -> None:
        path.write_text(KEY)

    writer = threading.Thread(target=serve, daemon=True)
    writer.start()
    assert reads(path)
    join_all([writer])
    path.chmod(0o644)
    # Opened for both, so that no open waits for the other end.
    both = os.open(path, os.O_RDWR)
    refused(path)
    os.close(both)


def test_a_file_without_a_name_any_more_can_be_read(key_file: Path) -> None:
    opened = os.open(key_file, os.O_RDONLY)
    key_file.unlink()
    assert reads(f"/dev/fd/{opened}")
    os.fchmod(opened, 0o640)
    refused(Path(f"/dev/fd/{opened}"))
    os.close(opened)


def test_a_device_is_refused() -> None:
    with pytest.raises(OSError, match="neither a regular file nor a pipe") as caught:
        from_file("/dev/null")
    assert caught.value.errno == errno.EINVAL


def test_a_folder_is_refused(tmp_path: Path) -> None:
    with pytest.raises(IsADirectoryError):
        from_file(tmp_path)


def test_a_socket_is_refused(tmp_path: Path) -> None:
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(tmp_path / "socket"))
        with pytest.raises(OSError):
            from_file(tmp_path / "socket")


def test_a_file_that_is_not_there_is_named(tmp_path: Path) -> None:
    with pytest.raises(FileNotFoundError) as caught:
        from_file(tmp_path / "none")
    assert caught.value.filename == str(tmp_path / "none")
    assert not hasattr(caught.value, "__notes__")


def test_a_users_folder_is_not_looked_up(key_file: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("HOME", str(key_file.parent))
    with pytest.raises(FileNotFoundError) as caught:
        from_file(f"~/{key_file.name}")
    (note,) = caught.value.__notes__
    assert note.startswith('"~" is not expanded')


@pytest.mark.parametrize("prefix", ["", "0x"])
def test_a_key_in_place_of_the_path_is_not_repeated(prefix: str) -> None:
    with pytest.raises(ValueError) as caught:
        from_file(prefix + KEY)
    assert str(caught.value) == "a key was given in place of the path of a file"

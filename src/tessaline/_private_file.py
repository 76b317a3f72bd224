"""Files that other users must not read."""

from __future__ import annotations

import errno
import os
import re
import stat
from typing import IO, Final, Literal

__all__ = ["ReadableBy", "bytes_of", "holds_key", "private_text", "without_line_end"]

ReadableBy = Literal["owner", "group", "all"]
"""Who may be able to read a file with a key."""

_TOO_MUCH: Final[dict[ReadableBy, int]] = {"owner": 0o077, "group": 0o037, "all": 0o033}
_WANTED: Final[dict[ReadableBy, str]] = {
    "owner": "0600 or 0400",
    "group": "0640, 0440 or less",
    "all": "0644, 0444 or less",
}
_MOST_BYTES: Final = 65536
_KEY: Final = re.compile(r"[0-9a-fA-F]{60}")

type _Path = str | os.PathLike[str]


def holds_key(text: str) -> bool:
    """Whether a key may have been passed in place of a name, so that messages must not show it."""
    return _KEY.search(text) is not None


def private_text(path: _Path, readable_by: ReadableBy) -> str:
    """The content of a private file, without one line end; errors as of `bytes_of`."""
    if readable_by not in _TOO_MUCH:
        raise ValueError('readable_by is "owner", "group" or "all"')
    return without_line_end(bytes_of(path, readable_by).decode("utf-8", "replace"))


def without_line_end(text: str) -> str:
    """The text without one trailing line end."""
    return text.removesuffix("\n").removesuffix("\r")


def bytes_of(path: _Path, readable_by: ReadableBy | None) -> bytes:
    """The content of a regular file or a pipe, up to 64 KiB.

    Args:
        path: Of the file.
        readable_by: Who may be able to read it; None for anybody.

    Raises:
        PermissionError: Others may read or change it, or another user owns it.
        OSError: It is another type of file, or cannot be read.
        ValueError: A key was passed as the path.
    """
    with _opened(path) as file:
        # Of the open file, since the path may be replaced at any time.
        found = os.fstat(file.fileno())
        mode = found.st_mode
        if not (stat.S_ISREG(mode) or stat.S_ISFIFO(mode)):
            raise OSError(errno.EINVAL, "neither a regular file nor a pipe", os.fspath(path))
        if readable_by is not None and mode & _TOO_MUCH[readable_by]:
            raise _too_open(stat.S_IMODE(mode), path, readable_by)
        # The owner of a pipe does not matter, only its writer.
        if readable_by == "owner" and stat.S_ISREG(mode) and found.st_uid not in (0, os.geteuid()):
            raise _foreign(found.st_uid, path)
        return file.read(_MOST_BYTES)


def _opened(path: _Path) -> IO[bytes]:
    name = os.fspath(path)
    # The system's error would show it.
    if holds_key(name) and "/" not in name and not os.access(name, os.F_OK):
        del name, path
        raise ValueError("a key was given in place of the path of a file")
    # A terminal opened by mistake must not become the controlling terminal.
    try:
        return open(path, "rb", opener=lambda name, flags: os.open(name, flags | os.O_NOCTTY))
    except FileNotFoundError as error:
        if name.startswith("~"):
            error.add_note('"~" is not expanded as in a shell: pass the whole path')
        raise


def _too_open(mode: int, path: _Path, readable_by: ReadableBy) -> PermissionError:
    text = f"others may read or change it: its mode is {mode:04o}, and should be {_WANTED[readable_by]}"
    error = PermissionError(errno.EACCES, text, os.fspath(path))
    if readable_by == "owner":
        error.add_note(
            "chmod 600 makes it private; if a container's secret cannot be mounted otherwise, readable_by "
            "says who else may read it"
        )
    return error


def _foreign(owner: int, path: _Path) -> PermissionError:
    text = f"it belongs to another user (uid {owner}), and should be this user's or root's"
    error = PermissionError(errno.EACCES, text, os.fspath(path))
    error.add_note("chown makes the user that the program runs as its owner")
    return error

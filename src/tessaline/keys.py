"""Where a private key comes from: an environment variable, a file, or an encrypted keystore.

    from tessaline.auth import AuthManager
    from tessaline.keys import from_file

    manager = AuthManager(from_file("/etc/program/wallet.key"), "https://service.example")

Each function reads the one place that it is told and no other, and gives back the key as 64 hexadecimal
digits without prefix. No error of theirs holds any part of the key or of a password. All of them may be
called from any thread.
"""

from __future__ import annotations

import json
import os
from collections.abc import Callable, Mapping
from typing import Any, cast

from tessaline._private_file import ReadableBy, bytes_of, holds_key, private_text, without_line_end

# The manager's own judge, so that a key is good here exactly if it is good there.
from tessaline.auth import InvalidKeyError, _validate_private_key  # pyright: ignore[reportPrivateUsage]

__all__ = ["ReadableBy", "from_environment", "from_file", "from_keystore"]

type _Path = str | os.PathLike[str]
type _Decrypt = Callable[[dict[str, Any], str], bytes]


def from_environment(name: str, remove: bool = True) -> str:
    """Read a key from an environment variable.

    Args:
        name: Name of the variable. One line end behind the key is left out.
        remove: Take the variable out of the environment, whatever it holds, so that programs that are started
            later do not inherit it. Then call it before there are threads: C libraries read the environment
            without a lock.

    Returns:
        64 hexadecimal digits without prefix, in the case in which they were written.

    Raises:
        KeyError: There is no such variable.
        InvalidKeyError: It is empty or holds something else than a key; a note names the variable.
        ValueError: What was given as the name is a key.
    """
    return _judged(_variable(name, remove), f"the environment variable {name}")


def from_file(path: _Path, *, readable_by: ReadableBy = "owner") -> str:
    """Read a key from a file that nobody else can read.

    Args:
        path: A regular file or a pipe, such as `/dev/fd/63` of a shell's `<(...)`; symbolic links are
            followed. One line end behind the key is left out. A pipe is waited for until its writer closes
            it.
        readable_by: Who may be able to read it: "owner" alone, its "group" too, or "all". For the secrets of
            containers, whose files are mounted for everybody in a place where there is nobody else.

    Returns:
        64 hexadecimal digits without prefix, in the case in which they were written.

    Raises:
        PermissionError: Others may read or change the file; the text has its mode and the one that it should
            have. Or it is neither root's nor the effective user's, where `readable_by` is "owner". Looked up
            on the opened file, before anything is read. Also: this process may not read it.
        FileNotFoundError: There is no such file.
        OSError: It is a directory, a device or a socket, or cannot be read.
        InvalidKeyError: It is empty or holds something else than a key; a note names the file.
        ValueError: What was given as the path is a key; or `readable_by` is none of the three.
    """
    return _judged(private_text(path, readable_by), f"the file {os.fspath(path)}")


def from_keystore(path: _Path, password: str) -> str:
    """Decrypt a key from a version 3 JSON keystore, with `eth-account`.

    Deriving the key takes about a second of the processor, as long as the keystore's maker wanted it to.

    Args:
        path: The keystore. Others may read it: it is encrypted.
        password: Its password.

    Returns:
        64 hexadecimal digits without prefix, in lower case.

    Raises:
        ImportError: `eth-account` is missing: `pip install tessaline[keystore]`.
        OSError: The file is not there, or cannot be read.
        ValueError: It is no version 3 JSON keystore, or the password does not open it.
        InvalidKeyError: What was in it is no key.
    """
    decrypt = _decrypter()
    return _judged(_decrypted(decrypt, path, password), f"the keystore {os.fspath(path)}")


def _judged(text: str, place: str) -> str:
    try:
        return _validate_private_key(text)
    except InvalidKeyError as error:
        error.add_note(f"it was read from {place}" if text else f"{place} is empty")
        raise
    finally:
        # What reports an error may show the variables of every frame that it passed.
        del text


def _variable(name: str, remove: bool) -> str:
    try:
        return without_line_end(os.environ.pop(name) if remove else os.environ[name])
    except KeyError as error:
        if not holds_key(name):
            error.add_note("there is no environment variable of this name")
            raise
    raise ValueError("a key was given in place of the name of an environment variable")


def _decrypter() -> _Decrypt:
    try:
        from eth_account import Account
    except ImportError as error:
        text = "a keystore is decrypted by eth-account, which is not there: pip install tessaline[keystore]"
        raise ImportError(text, name="eth_account") from error
    return cast("_Decrypt", Account.decrypt)


def _keystore(path: _Path) -> dict[str, Any]:
    fields = _fields(bytes_of(path, None))
    if fields is None:
        raise ValueError(f"{os.fspath(path)} is no version 3 JSON keystore")
    return fields


def _fields(text: bytes) -> dict[str, Any] | None:
    # What is no keystore may be a key: nothing of it gets into an error.
    try:
        store: object = json.loads(text)
    except (ValueError, RecursionError):
        return None
    if not isinstance(store, Mapping):
        return None
    fields = {name.lower(): value for name, value in cast("Mapping[str, Any]", store).items()}
    is_keystore = fields.get("version") == 3 and isinstance(fields.get("crypto"), Mapping)
    return fields if is_keystore else None


def _decrypted(decrypt: _Decrypt, path: _Path, password: str) -> str:
    store = _keystore(path)
    try:
        return bytes(decrypt(store, password)).hex().zfill(64)
    except MemoryError:
        raise
    except Exception:  # of many kinds where the file is damaged
        pass
    # Outside the handler, whose error's frames hold the password.
    raise ValueError(f"{os.fspath(path)} cannot be decrypted: the password is wrong, or the file is damaged")

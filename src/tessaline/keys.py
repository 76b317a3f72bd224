"""Where a private key comes from: an environment variable, a file, or an encrypted keystore.

    from tessaline.auth import AuthManager
    from tessaline.keys import from_file

    manager = AuthManager(from_file("/etc/program/wallet.key"), "https://service.example")

Each function reads only the place that you name, and returns the key as 64 hexadecimal
digits without a prefix. No error contains any part of the key or of a password. You may call the functions
from any thread.
"""

from __future__ import annotations

import json
import os
from collections.abc import Callable, Mapping
from typing import Any, cast

from tessaline._private_file import ReadableBy, bytes_of, holds_key, private_text, without_line_end

# The manager's own validation, so that both accept the same keys.
from tessaline.auth import InvalidKeyError, _validate_private_key  # pyright: ignore[reportPrivateUsage]

__all__ = ["ReadableBy", "from_environment", "from_file", "from_keystore"]

type _Path = str | os.PathLike[str]
type _Decrypt = Callable[[dict[str, Any], str], bytes]


def from_environment(name: str, remove: bool = True) -> str:
    """Read a key from an environment variable.

    Args:
        name: Name of the variable. One newline after the key is ignored.
        remove: Remove the variable from the environment, whatever its value, so that programs started
            later do not inherit it. In that case call it before there are threads: C libraries read the
            environment without a lock.

    Returns:
        64 hexadecimal digits without a prefix, in their original case.

    Raises:
        KeyError: There is no such variable.
        InvalidKeyError: It is empty or does not contain a key; a note names the variable.
        ValueError: A key was passed as the name.
    """
    return _judged(_variable(name, remove), f"the environment variable {name}")


def from_file(path: _Path, *, readable_by: ReadableBy = "owner") -> str:
    """Read a key from a file that nobody else can read.

    Args:
        path: A regular file or a pipe, such as `/dev/fd/63` of a shell's `<(...)`; symbolic links are
            followed. One newline after the key is ignored. A pipe is read until its writer closes it.
        readable_by: Who may be able to read it: "owner" only, also its "group", or "all". The latter two are
            for container secrets, which are often mounted readable for everybody.

    Returns:
        64 hexadecimal digits without a prefix, in their original case.

    Raises:
        PermissionError: Others can read or change the file; the message has its mode and the mode that it
            should have. Or, with `readable_by` "owner", its owner is neither root nor the effective user.
            Checked on the opened file, before reading. Also: this process may not read it.
        FileNotFoundError: There is no such file.
        OSError: It is a directory, a device or a socket, or cannot be read.
        InvalidKeyError: It is empty or does not contain a key; a note names the file.
        ValueError: A key was passed as the path; or `readable_by` is none of the three.
    """
    return _judged(private_text(path, readable_by), f"the file {os.fspath(path)}")


def from_keystore(path: _Path, password: str) -> str:
    """Decrypt a key from a version 3 JSON keystore, with `eth-account`.

    Deriving the key takes about a second of processor time, by design of the format.

    Args:
        path: The keystore. Others may be able to read it, because it is encrypted.
        password: Its password.

    Returns:
        64 lowercase hexadecimal digits without a prefix.

    Raises:
        ImportError: `eth-account` is not installed: `pip install "tessaline[keystore]"`.
        OSError: The file does not exist, or cannot be read.
        ValueError: It is not a version 3 JSON keystore, or the password is wrong.
        InvalidKeyError: It does not contain a valid key.
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
        # An error report may show the variables of every frame in the traceback.
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
    # The file may contain a plain key, so errors must not quote it.
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
    except Exception:  # a damaged file raises errors of many types
        pass
    # Outside the handler, because its traceback holds the password.
    raise ValueError(f"{os.fspath(path)} cannot be decrypted: the password is wrong, or the file is damaged")

"""Run as a program: uses a manager from construction to close, then searches all memory of this process for
its key.

The key is passed masked. The only plain copy that this program makes is the text for the manager, and
that is overwritten before the search; the search patterns are masked too, so that the search does not
find itself. Prints a JSON object: how often each form of the key was found.
"""

from __future__ import annotations

import base64
import ctypes
import gc
import json
import sys
import threading
import time
from collections.abc import Callable, Iterator
from typing import Any

from tessaline import auth

MASK = 0xA5
UNMASK = bytes(value ^ MASK for value in range(256))
HALF = 16
CHUNK = 1 << 22


def plain_key(masked_hex: bytes) -> str:
    """The key's text in one object: single characters are shared, and joining copies them once."""
    return "".join([chr(value ^ MASK) for value in masked_hex])


def overwrite(text: str) -> None:
    """Overwrite an ASCII text in place."""
    size = len(text)
    start = id(text) + sys.getsizeof(text) - size - 1
    assert ctypes.string_at(start, 1) == text[:1].encode()
    ctypes.memset(start, 0x2E, size)


def forms(masked_hex: bytes, masked_key: bytes) -> dict[str, bytes]:
    """Every form to search for, masked. Halves are enough: a spilled register does not hold the whole key."""
    lower = bytes(
        (value ^ MASK) | 0x20 if chr(value ^ MASK).isalpha() else value ^ MASK for value in masked_hex
    )
    masked_lower = bytes(value ^ MASK for value in lower)
    upper = bytes(value ^ 0x20 if chr(value ^ MASK).isalpha() else value for value in masked_lower)
    found: dict[str, bytes] = {}
    for name, text in (("as given", masked_hex), ("lower", masked_lower), ("upper", upper)):
        found[f"{name}, first half"] = text[:32]
        found[f"{name}, second half"] = text[32:]
        found[f"{name}, two bytes wide"] = bytes(b for value in text[:32] for b in (value, MASK))
        found[f"{name}, four bytes wide"] = bytes(b for value in text[:32] for b in (value, MASK, MASK, MASK))
    for name, key in (("bytes", masked_key), ("bytes reversed", masked_key[::-1])):
        found[f"{name}, first half"] = key[:HALF]
        found[f"{name}, second half"] = key[HALF:]
    return found


def writable_maps() -> Iterator[tuple[int, int]]:
    with open("/proc/self/maps") as maps:
        lines = maps.read().splitlines()
    for line in lines:
        addresses, rights, *_ = line.split()
        if rights.startswith("rw") and "[vvar" not in line:
            begin, end = (int(part, 16) for part in addresses.split("-"))
            yield begin, end


def search(needles: dict[str, bytes]) -> dict[str, int]:
    counts = dict.fromkeys(needles, 0)
    overlap = max(map(len, needles.values())) - 1
    buffer = bytearray(CHUNK)
    own = (ctypes.c_char * CHUNK).from_buffer(buffer)
    own_begin = ctypes.addressof(own)
    with open("/proc/self/mem", "rb", buffering=0) as memory:
        for begin, end in writable_maps():
            position = begin
            while position < end:
                size = min(CHUNK, end - position)
                if position <= own_begin < position + size:
                    # The buffer itself holds the last text that was read.
                    size = own_begin - position
                    if size == 0:
                        position = min(end, own_begin + CHUNK)
                        continue
                try:
                    memory.seek(position)
                    got = memory.readinto(memoryview(buffer)[:size])
                except OSError:
                    break
                # Masked as a whole, so that the search leaves no plain copy.
                masked = bytes(memoryview(buffer)[:got]).translate(UNMASK)
                ctypes.memset(own_begin, 0, CHUNK)
                for name, needle in needles.items():
                    counts[name] += masked.count(needle)
                position += got if position + got >= end else max(1, got - overlap)
    return counts


def token_for(address: str) -> str:
    claims = base64.urlsafe_b64encode(json.dumps({"sub": address, "era_number": 3}).encode())
    return f"e30.{claims.decode().rstrip('=')}.c2ln"


def service(
    method: str, url: str, headers: Any = None, body: Any = None
) -> tuple[int, dict[str, str], bytes]:
    if url.endswith("/auth/challenge"):
        address = json.loads(body)["wallet_address"]
        return 200, {}, json.dumps({"challenge_id": address, "message": "sign"}).encode()
    if url.endswith("/auth/verify"):
        sent = json.loads(body)
        assert len(sent["signature"]) == 132
        granted = {"token": token_for(sent["challenge_id"]), "expires_at": 0, "wallet_secret": "c2VjcmV0"}
        return 200, {}, json.dumps(granted).encode()
    return 201, {}, b"{}"


def manager_with(key: str, **options: Any) -> Any:
    return auth.AuthManager(key, "https://auth.example.test", _transport=service, **options)


def live_and_sign(key: str) -> Any:
    manager = manager_with(key)
    manager.authenticate()
    assert manager.get_token().startswith("e30.")
    return manager


def renewed_in_the_background(key: str) -> Any:
    manager = live_and_sign(key)
    manager.notify_era_change(2)
    assert manager.get_token()
    return manager


def stay_open(key: str) -> Any:
    return live_and_sign(key)


def read_the_field(key: str) -> Any:
    manager = live_and_sign(key)
    return manager, manager._private_key


def close(key: str) -> None:
    live_and_sign(key).close()


def close_after_background_flows(key: str) -> None:
    renewed_in_the_background(key).close()


def close_many(key: str) -> None:
    managers = [live_and_sign(key) for _ in range(80)]
    for manager in managers:
        manager.close()


def close_without_login(key: str) -> None:
    manager_with(key).close()


def leave_the_block(key: str) -> None:
    with manager_with(key) as manager:
        manager.authenticate()


def prefixed(key: str) -> None:
    with_prefix = "0X" + key
    live_and_sign(with_prefix).close()
    overwrite(with_prefix)


def drop(key: str) -> None:
    manager = manager_with(key)
    try:
        manager._do_auth_flow()
    finally:
        del manager


def drop_in_a_cycle(key: str) -> None:
    manager = manager_with(key)
    manager.itself = manager
    manager._do_auth_flow()
    del manager
    assert gc.collect() > 0


def set_to_none(key: str) -> Any:
    manager = manager_with(key)
    manager._private_key = None
    return manager


def replaced(key: str) -> Any:
    manager = manager_with(key)
    manager._private_key = "1" * 64
    return manager


def constructed_again(key: str) -> Any:
    manager = manager_with(key)
    manager.__init__("1" * 64, "https://auth.example.test")
    return manager


def refused(build: Callable[[], Any], *errors: type[BaseException]) -> None:
    try:
        build()
    except errors:
        return
    raise AssertionError("not refused")


def refused_url(key: str) -> None:
    refused(lambda: manager_with_url(key, "not a url"), ValueError)
    refused(lambda: manager_with_url(key, ""), ValueError)


def manager_with_url(key: str, url: str) -> Any:
    return auth.AuthManager(key, url)


class Unwilling:
    def __bool__(self) -> bool:
        raise ZeroDivisionError("no truth value")

    def __str__(self) -> str:
        raise ZeroDivisionError("no text")


def refused_arguments(key: str) -> None:
    refused(lambda: manager_with(key, invite_code=Unwilling()), ZeroDivisionError)
    refused(lambda: manager_with(key, register_wallet=Unwilling()), ZeroDivisionError)


def login_fails(key: str) -> None:
    def unauthorized(*asked: Any, **more: Any) -> Any:
        answer = service(*asked, **more)
        return (401, {}, b"") if asked[1].endswith("/auth/verify") else answer

    manager = auth.AuthManager(key, "https://auth.example.test", _transport=unauthorized)
    refused(manager.authenticate, auth.AuthError)
    manager.close()


def sign_after_close(key: str) -> None:
    """The key is removed between the challenge and the signature, and while a request runs."""
    manager: Any = None

    def closing(*asked: Any, **more: Any) -> Any:
        if asked[1].endswith("/auth/verify"):
            manager.close()
        return service(*asked, **more)

    manager = auth.AuthManager(key, "https://auth.example.test", _transport=closing)
    refused(manager.authenticate, auth.AuthError)


LIVES = {
    life.__name__: life
    for life in (
        stay_open,
        read_the_field,
        close,
        close_after_background_flows,
        close_many,
        close_without_login,
        leave_the_block,
        prefixed,
        drop,
        drop_in_a_cycle,
        set_to_none,
        replaced,
        constructed_again,
        refused_url,
        refused_arguments,
        login_fails,
        sign_after_close,
    )
}


def main() -> None:
    life, masked_hex, masked_key = sys.argv[1], bytes.fromhex(sys.argv[2]), bytes.fromhex(sys.argv[3])
    needles = forms(masked_hex, masked_key)
    if life == "plant":
        planted = [needle.translate(UNMASK) for needle in needles.values()]
        print(json.dumps(search(needles)))
        assert len(planted) == len(needles)
        return
    key = plain_key(masked_hex)
    kept = LIVES[life](key)
    overwrite(key)
    limit = time.monotonic() + 10.0
    while kept is None and threading.active_count() > 1 and time.monotonic() < limit:
        time.sleep(0.001)
    print(json.dumps(search(needles)))


if __name__ == "__main__":
    main()

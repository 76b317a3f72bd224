"""Tinyproxy, open or with a password."""

from __future__ import annotations

import contextlib
from collections.abc import Iterator
from pathlib import Path

from .programs import free_ports, own_folder, running

USER = "anybody-of-tinyproxy"
PASSWORD = "s3cretOfTinyproxy0123456"
# Its address towards servers.
CLIENT = "127.0.0.2"


@contextlib.contextmanager
def tinyproxy(*directives: str) -> Iterator[str]:
    """One with these lines in its configuration; the value is its host:port."""
    (port,) = free_ports(1)
    with own_folder() as folder:
        own = [f"Port {port}", "Listen 127.0.0.1", f"Bind {CLIENT}", f'LogFile "{folder}/log"']
        (folder / "tinyproxy.conf").write_text("\n".join([*own, *directives, ""]))
        command: list[str | Path] = ["tinyproxy", "-d", "-c", folder / "tinyproxy.conf"]
        with running(command, folder, [port]):
            yield f"127.0.0.1:{port}"

"""References of redirects, compared with Python's URL library: a line with the base, then the reference."""

from __future__ import annotations

import urllib.parse
from urllib.parse import quote, urljoin, urlsplit

from ..hosted import load_rooms, outcome

TRACED = (urllib.parse,)
DEFAULT_PORTS = {"http": 80, "https": 443}
SENDABLE = "".join(map(chr, range(0x21, 0x7F)))

rooms = load_rooms()


def one_input(data: bytes) -> None:
    first, _, reference = data.partition(b"\n")
    base = first.decode("ascii", "replace")
    if "\0" in base or rooms.parse_url(base) is None:
        return
    ours = rooms.resolve_reference(base, reference)
    if ours is not None:
        check_url(ours)
    check_against_library(base, reference, ours)


def check_url(url: tuple[str, str, str, str]) -> None:
    assert rooms.parse_url(url[0]) == url
    assert url[1] in DEFAULT_PORTS


def check_against_library(base: str, reference: bytes, ours: tuple[str, str, str, str] | None) -> None:
    """If both resolve it, they get the same server: scheme, host and port."""
    kept = reference.translate(None, b"\t\r\n")
    theirs = outcome(urljoin, base, quote(kept.decode("latin-1"), SENDABLE, "latin-1"))
    parts = outcome(urlsplit, theirs) if isinstance(theirs, str) else theirs
    if isinstance(parts, Exception) or ours is None or not plain(parts.netloc):
        return
    port = outcome(lambda: parts.port)
    if isinstance(port, Exception):
        return
    assert ours[1:3] == (parts.scheme, parts.hostname), (theirs, ours)
    assert int(ours[3]) == (DEFAULT_PORTS[parts.scheme] if port is None else port), (theirs, ours)


def plain(location: str) -> bool:
    """No escapes, no IPv6, no number that may be an address: parsers normalise these differently."""
    host = location.partition(":")[0]
    return bool(host) and not set(location) & set("%[]@") and not host.rpartition(".")[2][:1].isdigit()

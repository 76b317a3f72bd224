"""The server's own CA and its certificates."""

import ssl
from collections.abc import Mapping, Sequence
from datetime import UTC, datetime
from pathlib import Path

import trustme

_LONG_AGO = datetime(2001, 1, 1, tzinfo=UTC)
_LESS_LONG_AGO = datetime(2002, 1, 1, tzinfo=UTC)


def make_context(ca_file: Path, names: Sequence[str], *, expired: bool = False) -> ssl.SSLContext:
    """A server context with a new certificate; writes the CA certificate to `ca_file`.

    names: host names and addresses that the certificate is for. expired: it ended long ago.
    """
    authority = trustme.CA()
    authority.cert_pem.write_to_path(str(ca_file))
    return _context(authority, names, expired=expired)


def make_flawed_contexts(ca_file: Path, names: Sequence[str]) -> Mapping[str, ssl.SSLContext]:
    """For each flaw, a server context with such a certificate.

    Appends their CA certificate to `ca_file`; "untrusted" is of another CA.
    """
    authority = trustme.CA()
    with ca_file.open("ab") as file:
        file.write(authority.cert_pem.bytes())
    return {
        "untrusted": _context(trustme.CA(), names),
        "misnamed": _context(authority, ["elsewhere.test"]),
        "expired": _context(authority, names, expired=True),
    }


def _context(authority: trustme.CA, names: Sequence[str], *, expired: bool = False) -> ssl.SSLContext:
    if expired:
        certificate = authority.issue_cert(*names, not_before=_LONG_AGO, not_after=_LESS_LONG_AGO)
    else:
        certificate = authority.issue_cert(*names)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.set_alpn_protocols(["http/1.1"])
    certificate.configure_cert(context)
    return context

"""A certificate authority of the server's own and a certificate from it."""

import ssl
from collections.abc import Sequence
from datetime import UTC, datetime
from pathlib import Path

import trustme

_LONG_AGO = datetime(2001, 1, 1, tzinfo=UTC)
_LESS_LONG_AGO = datetime(2002, 1, 1, tzinfo=UTC)


def make_context(ca_file: Path, names: Sequence[str], *, expired: bool = False) -> ssl.SSLContext:
    """A server context with a fresh certificate, whose authority's certificate goes to `ca_file`.

    names: host names and addresses that the certificate is for. expired: it ended long ago.
    """
    authority = trustme.CA()
    if expired:
        certificate = authority.issue_cert(*names, not_before=_LONG_AGO, not_after=_LESS_LONG_AGO)
    else:
        certificate = authority.issue_cert(*names)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.set_alpn_protocols(["http/1.1"])
    certificate.configure_cert(context)
    authority.cert_pem.write_to_path(str(ca_file))
    return context

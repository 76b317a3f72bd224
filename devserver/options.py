"""The command line."""

import argparse
import json
import sys
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any, NoReturn

from . import __version__
from .faultoption import Script, parse_option
from .faults import CONNECT
from .settings import Settings

DEFAULT_TLS_NAMES = ("localhost", "127.0.0.1", "::1")
MINIMUM_SECRET_BYTES = 32


@dataclass(frozen=True)
class Options:
    """The command line; a reset restores `settings`, `invites` and `scripts`."""

    host: str
    port: int
    tls: bool
    tls_names: tuple[str, ...]
    tls_expired: bool
    gate: bool
    ca_file: Path | None
    secret: bytes | None
    keep_alive: int
    exit_with_stdin: bool
    settings: Settings
    invites: tuple[str, ...]
    scripts: dict[str, Script]
    access_log: bool


class _Parser(argparse.ArgumentParser):
    """A parser whose error messages are one sentence, without the usage."""

    def error(self, message: str) -> NoReturn:
        self.exit(2, f"{self.prog}: {message} (--help shows all options)\n")


def _era(text: str) -> int | None:
    return None if text == "none" else int(text)


def _claims(text: str) -> dict[str, Any]:
    value = json.loads(text)
    if not isinstance(value, dict):
        raise ValueError
    return value


def _secret(text: str) -> bytes:
    secret = text.encode()
    if len(secret) < MINIMUM_SECRET_BYTES:
        raise argparse.ArgumentTypeError(f"at least {MINIMUM_SECRET_BYTES} bytes are needed")
    return secret


def _fault(text: str) -> tuple[str, Script]:
    try:
        return parse_option(text)
    except ValueError as error:
        raise argparse.ArgumentTypeError(str(error)) from None


def _scripts(faults: Sequence[tuple[str, Script]]) -> dict[str, Script]:
    """The faults of each endpoint in their order."""
    scripts: dict[str, Script] = {}
    for endpoint, script in faults:
        scripts.setdefault(endpoint, []).extend(script)
    return scripts


# argparse names a converter in its error messages.
_era.__name__ = "era number"
_claims.__name__ = "JSON object"


def _parser() -> argparse.ArgumentParser:
    name = Path(sys.argv[0]).name
    parser = _Parser(
        prog="python -m devserver" if name == "__main__.py" else name,
        description="Simulate the service that a wallet logs in to. "
        "When it is ready, it prints one JSON line with its URL on standard output.",
        epilog="Control it at run time with JSON: GET /_control/state; "
        "POST to settings, faults, release, wait, reset. GET /openapi.json describes all of it.",
        allow_abbrev=False,
    )
    parser.add_argument("--version", action="version", version=f"tessaline-devserver {__version__}")
    _add_listening(parser.add_argument_group("listening"))
    _add_service(parser.add_argument_group("service"))
    return parser


def _add_listening(group: argparse._ArgumentGroup) -> None:
    add = group.add_argument
    add("--host", default="127.0.0.1", help="the address to listen on (%(default)s)")
    add("--port", type=int, default=0, help="the port to listen on; 0 for a free one (%(default)s)")
    add("--tls", action="store_true", help="serve HTTPS with a new certificate")
    names_help = (
        f"a host name or address in the certificate, repeatable (default: {', '.join(DEFAULT_TLS_NAMES)})"
    )
    add("--tls-name", action="append", metavar="NAME", help=names_help)
    add("--tls-expired", action="store_true", help="use an expired certificate")
    add("--gate", action="store_true", help="also listen on a second port, whose connections get faults")
    ca_help = "where to write the CA certificate (default: a temporary file)"
    add("--ca-file", type=Path, metavar="PATH", help=ca_help)
    keep_help = "how long to keep an idle connection open (%(default)s)"
    add("--keep-alive", type=int, default=75, metavar="SECONDS", help=keep_help)
    log_help = "log each request to standard error, and first the URL"
    add("--access-log", action="store_true", help=log_help)
    add("--exit-with-stdin", action="store_true", help="exit when standard input is closed")


def _add_service(group: argparse._ArgumentGroup) -> None:
    defaults = Settings()
    add = group.add_argument
    add("--invite-only", action="store_true", help="new wallets need an invite")
    invite_help = "an invite code for one wallet, repeatable"
    add("--invite", action="append", metavar="CODE", default=[], help=invite_help)
    open_help = "let unregistered wallets log in (otherwise they get status 401)"
    add("--allow-unregistered", action="store_true", help=open_help)
    era_help = 'the era number in tokens, or "none" (%(default)s)'
    add("--era", type=_era, default=defaults.era, metavar="N", help=era_help)
    add("--claims", type=_claims, default={}, metavar="JSON", help="additional token claims")
    token_help = "the lifetime of tokens (%(default)s)"
    add("--token-lifetime", type=float, default=defaults.token_lifetime, metavar="SECONDS", help=token_help)
    challenge_help = "the lifetime of challenges (%(default)s)"
    lifetime = defaults.challenge_lifetime
    add("--challenge-lifetime", type=float, default=lifetime, metavar="SECONDS", help=challenge_help)
    skew_help = "how far the server's clock is ahead (%(default)s)"
    add("--clock-skew", type=float, default=0.0, metavar="SECONDS", help=skew_help)
    fault_help = (
        "a fault for the next requests to an endpoint, repeatable: verify=503x2, challenge=reset, "
        "verify=delay:2.5, '*=503xall' (for ever), or ENDPOINT=JSON"
    )
    add(
        "--fault", type=_fault, action="append", default=[], metavar="ENDPOINT=FAULT[xTIMES]", help=fault_help
    )
    secret_help = "signs tokens and derives wallet secrets; the same text keeps both valid (default: random)"
    add("--jwt-secret", type=_secret, metavar="TEXT", help=secret_help)


def parse(arguments: Sequence[str] | None = None) -> Options:
    """The options in `arguments`, or of the process; exits with a message if they are invalid."""
    parser = _parser()
    given = parser.parse_args(arguments)
    settings = Settings()
    try:
        settings.update(
            {
                "era": given.era,
                "claims": given.claims,
                "invite_only": given.invite_only,
                "allow_unregistered": given.allow_unregistered,
                "clock_skew": given.clock_skew,
                "challenge_lifetime": given.challenge_lifetime,
                "token_lifetime": given.token_lifetime,
            }
        )
    except ValueError as error:
        parser.error(str(error))
    scripts = _scripts(given.fault)
    if CONNECT in scripts and not given.gate:
        parser.error(f"--fault: the endpoint {CONNECT!r} is there with --gate only")
    if given.ca_file is not None and not given.ca_file.parent.is_dir():
        parser.error(f"--ca-file: there is no directory {given.ca_file.parent}")
    return Options(
        host=given.host,
        port=given.port,
        tls=given.tls,
        tls_names=tuple(given.tls_name or DEFAULT_TLS_NAMES),
        tls_expired=given.tls_expired,
        gate=given.gate,
        ca_file=given.ca_file,
        secret=given.jwt_secret,
        keep_alive=given.keep_alive,
        exit_with_stdin=given.exit_with_stdin,
        settings=settings,
        invites=tuple(given.invite),
        scripts=scripts,
        access_log=given.access_log,
    )

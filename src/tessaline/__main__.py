"""The command line: `python -m tessaline check URL --key-file FILE`."""

from __future__ import annotations

import argparse
import getpass
import io
import math
import sys
from collections.abc import Sequence
from typing import NoReturn

from tessaline import __version__

_EPILOG = """
exit codes: 0 logged in; 2 usage error; 3 no key; 4 server not reachable; 5 TLS; 6 refused by the server; 7
unexpected response; 1 other error; 130 interrupted. Details: the page "Checking a login".
"""


class _Parser(argparse.ArgumentParser):
    """Reports errors without repeating what may be a key."""

    def error(self, message: str) -> NoReturn:
        from tessaline._check_report import shown

        super().error(shown(message))


class _Version(argparse.Action):
    """Prints the versions; only then, because this loads the HTTP library."""

    def __call__(self, parser: argparse.ArgumentParser, *_: object) -> NoReturn:
        print(_versions())
        parser.exit()


def _versions() -> str:
    # Imported here: a usage error does not need it.
    import platform

    from tessaline import _native

    libcurl, openssl, libsecp256k1 = _native.library_versions()
    whose = "bundled" if _native.bundled else "the system's"
    python = f"{platform.python_implementation()} {platform.python_version()}"
    libraries = f"libcurl {libcurl}, OpenSSL {openssl}, libsecp256k1 {libsecp256k1}"
    return f"tessaline {__version__}\n{python}\n{libraries} ({whose})"


def _seconds(text: str) -> float:
    seconds = float(text)
    if not (math.isfinite(seconds) and seconds > 0):
        raise ValueError
    return seconds


# argparse names a converter in its error messages.
_seconds.__name__ = "number of seconds"


def _parser() -> argparse.ArgumentParser:
    about = "Tools for wallets that log in."
    parser = _Parser(prog="python -m tessaline", description=about, allow_abbrev=False)
    version = "print the versions of the package and its libraries"
    parser.add_argument("--version", action=_Version, nargs=0, help=version)
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    _add_check(
        commands.add_parser(
            "check",
            help="log a wallet in, and report each step",
            description="Log a wallet in, and report each step: the server's name, TLS, the requests, the "
            "token's expiry. A wallet that the server does not know yet is registered.",
            epilog=_EPILOG,
            allow_abbrev=False,
        )
    )
    return parser


def _add_check(parser: argparse.ArgumentParser) -> None:
    add = parser.add_argument
    add("url", metavar="URL", help="the server's URL: https, or http to this machine")
    key = parser.add_mutually_exclusive_group(required=True)
    key.add_argument(
        "--key-file", metavar="FILE", help="a file or pipe with the key, which others cannot read"
    )
    key.add_argument("--key-variable", metavar="NAME", help="an environment variable with the key")
    key.add_argument(
        "--keystore", metavar="FILE", help="a version 3 JSON keystore; you are asked for its password"
    )
    password_help = "the keystore's password, in a file or pipe that others cannot read"
    add("--password-file", metavar="FILE", help=password_help)
    readable_help = "who may be able to read a file with a key or password (%(default)s)"
    add("--readable-by", choices=("owner", "group", "all"), default="owner", help=readable_help)
    add("--invite-code", metavar="CODE", help="sent with the registration")
    add("--no-register", action="store_true", help="skip the registration")
    timeout_help = "time-out of each request and each connection test (%(default)g)"
    add("--timeout", type=_seconds, default=30.0, metavar="SECONDS", help=timeout_help)
    add("--json", action="store_true", help="print one JSON object")
    add("--print-token", action="store_true", help="also print the token")
    parser.set_defaults(refuse=parser.error)


def _complaint(given: argparse.Namespace) -> str | None:
    """What is wrong with the URL, or with a combination of options."""
    from tessaline._transport_security import validate_bearer_transport_url

    try:
        # The manager's message would repeat the text, which may be a secret.
        if "://" not in given.url:
            return "URL needs a scheme and a host, such as https://service.example"
        validate_bearer_transport_url(given.url)
    except ValueError as error:
        return str(error)
    if given.password_file is not None and given.keystore is None:
        return "--password-file is for a keystore"
    if given.keystore is not None and given.password_file is None and not sys.stdin.isatty():
        return "without a terminal, a keystore needs --password-file"
    return None


def main(arguments: Sequence[str] | None = None) -> int:
    """Run the command in the arguments (those of the process by default), and return the exit code.

    Raises:
        SystemExit: A usage error (2), or --help or --version (0).
    """
    given = _parser().parse_args(arguments)
    if (complaint := _complaint(given)) is not None:
        given.refuse(complaint)
    from tessaline import _check
    from tessaline._private_file import private_text

    def password() -> str:
        if given.password_file is None:
            try:
                return getpass.getpass("password of the keystore: ")
            except EOFError:
                raise ValueError("no password was given") from None
        return private_text(given.password_file, given.readable_by)

    given.password = password
    try:
        return _check.run(given)
    except KeyboardInterrupt:
        print("interrupted", file=sys.stderr)
        return _check.INTERRUPTED


def _escape_unprintable() -> None:
    # The name of a CA may have characters that the terminal's encoding lacks.
    for stream in (sys.stdout, sys.stderr):
        if isinstance(stream, io.TextIOWrapper):
            stream.reconfigure(errors="backslashreplace")


if __name__ == "__main__":
    _escape_unprintable()
    sys.exit(main())

"""`python -m tessaline check`: one login, reported step by step."""

# pyright: reportPrivateUsage=false

from __future__ import annotations

import http.client
import json
import ssl
import sys
import time
from argparse import Namespace
from collections.abc import Callable, Mapping
from typing import Final
from urllib.parse import urlsplit

from tessaline import auth, keys
from tessaline._check_network import Resolution, Tls, look_at_tls, resolve
from tessaline._check_proxy import proxy_for
from tessaline._check_report import Exchange, Failure, Report, moment, shown
from tessaline._http_settings import LONGEST_TIMEOUT
from tessaline.errors import ERA_MISMATCH, WALLET_MISMATCH
from tessaline.http import transport

__all__ = ["run"]

UNFORESEEN: Final = 1
KEY: Final = 3
NETWORK: Final = 4
TLS: Final = 5
REFUSED: Final = 6
NO_LOGIN: Final = 7
INTERRUPTED: Final = 130

_HOUR: Final = 3600.0

type _Say = Callable[[str, str], None]


class _Watched:
    """The default transport with its own time-out, which reports each exchange.

    Removes `Retry-After` from responses, so that a check retries after the usual back-off of a second or two.
    """

    def __init__(self, timeout: float, noted: Callable[[Exchange], None]) -> None:
        self._transport = transport(timeout=min(timeout, LONGEST_TIMEOUT))
        self._noted = noted

    def __call__(
        self, method: str, url: str, headers: Mapping[str, str] | None = None, body: str | bytes | None = None
    ) -> tuple[int, Mapping[str, str], bytes]:
        path, started = urlsplit(url).path, time.monotonic()
        try:
            status, fields, answer = self._transport(method, url, headers=headers, body=body)
        except Exception as error:
            self._noted(Exchange(method, path, None, time.monotonic() - started, type(error).__name__))
            raise
        self._noted(Exchange(method, path, status, time.monotonic() - started))
        return status, {name: fields[name] for name in fields if name.lower() != "retry-after"}, answer


def run(given: Namespace) -> int:
    """Run the check with the options of the command line, and return the exit code.

    Args:
        given: The options, parsed by `tessaline.__main__`.
    """
    report = Report(given.url)
    token = _checked(report, given, _silent if given.json else _say)
    if given.json:
        told = report.as_json()
        if given.print_token:
            told["token"] = token
        print(json.dumps(told, indent=2))
    else:
        if given.print_token and token is not None:
            print(f"{'':12}{token}")
        if report.failure is not None:
            first, *others = report.failure.sentences()
            print("\n  ".join(map(shown, [f"failed: {first}", *others])), file=sys.stderr)
    return report.exit_code


def _checked(report: Report, given: Namespace, say: _Say) -> str | None:
    """Add one step after the other to the report; return the token if the login succeeds."""
    say("url", given.url)
    try:
        manager = auth.AuthManager(
            _key(given),
            given.url,
            invite_code=given.invite_code,
            register_wallet=not given.no_register,
            _transport=_Watched(given.timeout, lambda exchange: _note(report, exchange, say)),
        )
    except (auth.InvalidKeyError, ImportError, LookupError, OSError, ValueError) as error:
        report.failure = Failure("key", error, KEY)
        return None
    with manager:
        report.address = manager.get_wallet_address()
        say("wallet", report.address)
        _look_at_the_way(report, given, say)
        try:
            manager.authenticate()
        except Exception as error:
            code = _exit_code(error, report.exchanges)
            report.failure = Failure("login", error, code, _is_elsewhere(report.exchanges))
            return None
        report.expiry = manager.get_token_expiry()
        hours = (report.expiry - time.time()) / _HOUR
        say("token", f"valid for {hours:.1f} hours, until {moment(report.expiry)}")
        return manager.get_token()


def _key(given: Namespace) -> str:
    if given.key_file is not None:
        return keys.from_file(given.key_file, readable_by=given.readable_by)
    if given.key_variable is not None:
        return keys.from_environment(given.key_variable)
    return keys.from_keystore(given.keystore, given.password())


def _look_at_the_way(report: Report, given: Namespace, say: _Say) -> None:
    """For information: only the login decides whether the check fails."""
    report.proxy = proxy = proxy_for(given.url)
    if proxy is not None:
        say("proxy", f"{proxy.address}, from the environment variable {proxy.variable}")
    if proxy is None or not proxy.resolves_names:
        report.name = resolve(given.url, given.timeout)
        say("name", _name_text(report.name))
    else:
        say("name", "resolved by the proxy")
    report.tls = look_at_tls(given.url, proxy, given.timeout, report.name)
    if report.tls is not None:
        say("tls", _tls_text(report.tls))
    if report.tls is not None and report.tls.certificate is not None:
        certificate = report.tls.certificate
        validity = f"{certificate.days_left:.1f} days, until {moment(certificate.not_after)}"
        say("certificate", f"issued by {certificate.issuer}; valid for {validity}")


def _name_text(name: Resolution) -> str:
    return f"{name.host}: {name.error or ', '.join(name.addresses)} ({_milliseconds(name.seconds)})"


def _tls_text(tls: Tls) -> str:
    return f"{tls.error or f'{tls.version}, {tls.cipher}'} ({_milliseconds(tls.seconds)})"


def _note(report: Report, exchange: Exchange, say: _Say) -> None:
    report.exchanges.append(exchange)
    outcome = exchange.error or str(exchange.status)
    said = f"{exchange.method} {exchange.path}: {outcome} ({_milliseconds(exchange.seconds)})"
    say(exchange.path.rpartition("/")[2], said)


def _milliseconds(seconds: float) -> str:
    return f"{seconds * 1000:.1f} ms"


def _exit_code(error: Exception, exchanges: list[Exchange]) -> int:
    if isinstance(error, auth.AuthError):
        return NO_LOGIN if error.reason in (WALLET_MISMATCH, ERA_MISMATCH) else REFUSED
    if isinstance(error, auth.RegistrationError):
        return REFUSED
    if isinstance(error, auth.NetworkError):
        answered = bool(exchanges) and exchanges[-1].status is not None
        return NO_LOGIN if answered else NETWORK
    if isinstance(error, ssl.SSLError):
        return TLS
    if isinstance(error, OSError):
        return NETWORK
    if isinstance(error, http.client.HTTPException | LookupError | TypeError | ValueError):
        return NO_LOGIN
    return UNFORESEEN


def _is_elsewhere(exchanges: list[Exchange]) -> bool:
    """Whether the last status is not that of a transient error, so that the URL may be another service's."""
    status = exchanges[-1].status if exchanges else None
    return status is not None and status != 429 and status < 500


def _say(label: str, text: str) -> None:
    # Flushed, because the next step may take long.
    print(f"{label:<12}{shown(text)}", flush=True)


def _silent(label: str, text: str) -> None:
    pass

"""What a check prints on the terminal: a line for each thing found, with a label in front."""

from __future__ import annotations

import time
from collections.abc import Callable
from typing import Final

from tessaline._check_network import Certificate, Resolution, Tls
from tessaline._check_proxy import Proxy
from tessaline._check_report import Exchange, moment, shown

__all__ = [
    "Say",
    "certificate_text",
    "exchange_text",
    "name_text",
    "proxy_text",
    "say",
    "silent",
    "tls_text",
    "token_text",
]

_HOUR: Final = 3600.0

type Say = Callable[[str, str], None]


def say(label: str, text: str) -> None:
    # Flushed, because the next step may take long.
    print(f"{label:<12}{shown(text)}", flush=True)


def silent(label: str, text: str) -> None:
    pass


def proxy_text(proxy: Proxy) -> str:
    return f"{proxy.address}, from the environment variable {proxy.variable}"


def name_text(name: Resolution) -> str:
    return f"{name.host}: {name.error or ', '.join(name.addresses)} ({_milliseconds(name.seconds)})"


def tls_text(tls: Tls) -> str:
    return f"{tls.error or f'{tls.version}, {tls.cipher}'} ({_milliseconds(tls.seconds)})"


def certificate_text(certificate: Certificate) -> str:
    validity = f"{certificate.days_left:.1f} days, until {moment(certificate.not_after)}"
    return f"issued by {certificate.issuer}; valid for {validity}"


def exchange_text(exchange: Exchange) -> str:
    outcome = exchange.error or str(exchange.status)
    return f"{exchange.method} {exchange.path}: {outcome} ({_milliseconds(exchange.seconds)})"


def token_text(expiry: float) -> str:
    return f"valid for {(expiry - time.time()) / _HOUR:.1f} hours, until {moment(expiry)}"


def _milliseconds(seconds: float) -> str:
    return f"{seconds * 1000:.1f} ms"

"""The results of a check, as JSON and as the text of a failure."""

from __future__ import annotations

import re
import time
from collections.abc import Iterator
from dataclasses import asdict, dataclass, field
from typing import Any, Final, cast

from tessaline._check_network import Resolution, Tls
from tessaline._check_proxy import Proxy
from tessaline.errors import is_final

__all__ = ["Exchange", "Failure", "Report", "moment", "shown"]

SCHEMA: Final = 1

# A server may send it back, or a user may pass it as a path or an option.
_SECRET = re.compile(r"(?:0[xX])?[0-9a-fA-F]{60,}|eyJ[\w-]{8,}(?:\.[\w-]*)*")

# To the user of this command, Python's parameters are options.
_PARAMETER = re.compile(r"(?<![\w./-])(readable_by|invite_code)(?![\w./-])")


@dataclass(frozen=True)
class Exchange:
    """A request of the login: the status of its response, or the class of its error."""

    method: str
    path: str
    status: int | None
    seconds: float
    error: str | None = None


@dataclass(frozen=True)
class Failure:
    """Why the check failed: the step ("key" or "login"), the error, and the process's exit code.

    `wrong_server`: the URL may be another service's, so that a retry is not suggested.
    """

    step: str
    error: BaseException
    exit_code: int
    wrong_server: bool = False

    def as_json(self) -> dict[str, Any]:
        first, *others = [_link_as_json(link) for link in _chain(self.error)]
        reason = getattr(self.error, "reason", None)
        final = self.step == "key" or is_final(self.error)
        return {"step": self.step, "reason": reason, **first, "causes": others, "final": final}

    def sentences(self) -> Iterator[str]:
        """The lines of the text: the error, what to do about it, and whether a retry may help."""
        for number, link in enumerate(_chain(self.error)):
            yield f"{'caused by ' if number else ''}{type(link).__name__}: {link}"
            yield from _notes(link)
        if self.step == "login":
            if is_final(self.error):
                yield "permanent error: a retry fails until something is changed"
            elif not self.wrong_server:
                yield "transient error: a retry may help"


@dataclass
class Report:
    """The results of a check so far."""

    url: str
    address: str | None = None
    proxy: Proxy | None = None
    name: Resolution | None = None
    tls: Tls | None = None
    exchanges: list[Exchange] = field(default_factory=list[Exchange])
    expiry: float | None = None
    failure: Failure | None = None

    @property
    def exit_code(self) -> int:
        return 0 if self.failure is None else self.failure.exit_code

    def as_json(self) -> dict[str, Any]:
        """The object that `--json` prints, without the token; `docs/check.md` has its fields."""
        told = {
            "schema": SCHEMA,
            "ok": self.failure is None,
            "exit_code": self.exit_code,
            "url": self.url,
            "address": self.address,
            "proxy": self.proxy
            and {name: getattr(self.proxy, name) for name in ("variable", "scheme", "host", "port")},
            "name": self.name and asdict(self.name),
            "tls": self.tls and _tls_as_json(self.tls),
            "exchanges": [asdict(exchange) for exchange in self.exchanges],
            "expiry": self.expiry,
            "seconds_left": None if self.expiry is None else self.expiry - time.time(),
            "error": self.failure and self.failure.as_json(),
        }
        return cast("dict[str, Any]", _cleaned(told))


def shown(text: str) -> str:
    """The text without what looks like a key or token, and without control characters."""
    bare = _SECRET.sub("…", text)
    return "".join(unit if unit.isprintable() else ascii(unit)[1:-1] for unit in bare)


def moment(seconds: float) -> str:
    """A time, given as Unix time, in UTC."""
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(seconds))


def _tls_as_json(tls: Tls) -> dict[str, Any]:
    certificate = tls.certificate
    return {
        "version": tls.version,
        "cipher": tls.cipher,
        "issuer": certificate and certificate.issuer,
        "not_after": certificate and certificate.not_after,
        "days_left": certificate and certificate.days_left,
        "seconds": tls.seconds,
        "error": tls.error,
    }


def _chain(error: BaseException) -> Iterator[BaseException]:
    link: BaseException | None = error
    while link is not None:
        yield link
        link = link.__cause__ or (None if link.__suppress_context__ else link.__context__)


def _link_as_json(error: BaseException) -> dict[str, Any]:
    return {"type": type(error).__name__, "text": str(error), "notes": _notes(error)}


def _notes(error: BaseException) -> list[str]:
    return [_PARAMETER.sub(_as_option, str(note)) for note in getattr(error, "__notes__", ())]


def _as_option(parameter: re.Match[str]) -> str:
    return f"--{parameter[0].replace('_', '-')}"


def _cleaned(value: object) -> object:
    if isinstance(value, str):
        return shown(value)
    if isinstance(value, dict):
        return {name: _cleaned(item) for name, item in cast("dict[str, object]", value).items()}
    if isinstance(value, list | tuple):
        return [_cleaned(item) for item in cast("list[object]", value)]
    return value

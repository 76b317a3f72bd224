"""The service as a WSGI application."""

from __future__ import annotations

from collections.abc import Callable, Iterable
from typing import Any

from tests.real.python_service import answered


def app(
    environ: dict[str, Any], start_response: Callable[[str, list[tuple[str, str]]], Any]
) -> Iterable[bytes]:
    body = environ["wsgi.input"].read(int(environ.get("CONTENT_LENGTH") or 0))
    status, answer = answered(environ["PATH_INFO"], body, int(environ["REMOTE_PORT"]))
    headers = [("Content-Type", "application/json"), ("Content-Length", str(len(answer)))]
    start_response(f"{status} OK", headers)
    return [answer]

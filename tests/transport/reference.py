"""The same contract with Python's URL library, to compare with; and one call whose result is kept."""

from __future__ import annotations

import base64
import json
import urllib.error
import urllib.request
from collections.abc import Mapping
from typing import Any

from tessaline import auth

transport = auth._default_http_transport


def by_url_library(method: str, url: str, headers: Mapping[str, str] | None = None, body: Any = None) -> Any:
    """One request through `urllib.request`."""
    data = body.encode() if isinstance(body, str) else body
    request = urllib.request.Request(url, data=data, headers=dict(headers or {}), method=method)
    # A new opener: the default one would keep the first proxies and certificates.
    opener = urllib.request.build_opener()
    try:
        with opener.open(request, timeout=20) as response:
            return response.status, dict(response.headers), response.read()
    except urllib.error.HTTPError as error:
        with error:
            return error.code, dict(error.headers or {}), error.read() if error.fp else b""


def echoed(answer: tuple[int, dict[str, str], bytes]) -> dict[str, Any]:
    """The request that the echo of the development server received."""
    status, _, body = answer
    assert status == 200
    told: dict[str, Any] = json.loads(body)
    told["body"] = base64.b64decode(told.pop("body_base64"))
    told["headers"] = [tuple(pair) for pair in told["headers"]]
    return told


def failure(*args: Any, **options: Any) -> BaseException:
    """The error of the transport."""
    try:
        status = transport(*args, **options)[0]
    except BaseException as error:
        return error
    raise AssertionError(f"the request has not failed but was answered with {status}")

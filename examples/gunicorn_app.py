"""A WSGI application under gunicorn, whose workers share announced eras.

    SERVICE_URL=https://service.example WALLET_KEY=... gunicorn --preload --workers 4 gunicorn_app:app

With `--preload` this file is loaded once, before gunicorn forks its workers. So all workers share the board
of eras that is created here: an era announced in one worker reaches all others, whose keepers serve no older
token from that moment on. A worker that is forked after the login starts with its token, one that is forked
before logs in itself. Without `--preload` each worker loads the file itself and has its own board.

`GET /` returns the worker that responds and the era of its token, `POST /era/7` announces an era (replace it
by your own source of eras), and `POST /name/Ada` calls the service.
"""

from __future__ import annotations

import json
import logging
import os
from collections.abc import Iterable
from http import HTTPStatus
from typing import TYPE_CHECKING, Any

import requests

from tessaline.auth import AuthManager
from tessaline.errors import LOGIN_ERRORS
from tessaline.integrations.requests import WalletAuth
from tessaline.keeper import EraBoard, Keeper
from tessaline.keys import from_environment

if TYPE_CHECKING:
    from wsgiref.types import StartResponse, WSGIEnvironment

URL = os.environ["SERVICE_URL"]
logger = logging.getLogger(__name__)

board = EraBoard()
keeper = Keeper(AuthManager(from_environment("WALLET_KEY"), URL), era_board=board)
keeper.start(wait=False)
auth = WalletAuth(keeper, URL)


def app(environ: WSGIEnvironment, start_response: StartResponse) -> Iterable[bytes]:
    try:
        status, told = answer(environ["REQUEST_METHOD"], environ["PATH_INFO"])
    except LOGIN_ERRORS as error:
        # Its message may name hosts and proxies, which are internal.
        logger.warning("the service was not called: %s", error)
        status, told = HTTPStatus.SERVICE_UNAVAILABLE, {"error": type(error).__name__}
    body = json.dumps(told).encode()
    headers = [("Content-Type", "application/json"), ("Content-Length", str(len(body)))]
    start_response(f"{status.value} {status.phrase}", headers)
    return [body]


def answer(method: str, path: str) -> tuple[HTTPStatus, dict[str, Any]]:
    match method, path.split("/")[1:]:
        case "GET", [""]:
            return HTTPStatus.OK, {"worker": os.getpid(), "era": board.era, "state": keeper.status().state}
        # Keep it internal: an announced era that never comes stops every worker.
        case "POST", ["era", number] if number.isdecimal():
            keeper.notify_era_change(int(number))
            return HTTPStatus.OK, {"worker": os.getpid(), "era": board.era}
        case "POST", ["name", name]:
            reply = requests.post(
                f"{URL}/api/profile/display_name", json={"display_name": name}, auth=auth, timeout=30
            )
            return HTTPStatus(reply.status_code), {"worker": os.getpid(), **reply.json()}
        case _:
            return HTTPStatus.NOT_FOUND, {}

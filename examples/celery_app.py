"""Celery workers that call a service in a wallet's name.

    SERVICE_URL=https://service.example WALLET_KEY=... celery --app celery_app worker --concurrency 4

Broker and results are named by a `celeryconfig.py` beside it. Each process of the pool has a keeper of its
own, from its start to its end; programs that only send tasks make none and need no key. The board of eras is
made when this file is read, which the worker does before it forks its pool: so it is shared by all processes
of that worker, and an era that reaches one of them by the task `era` is met by every other. Celery gives a
process four seconds to start, so the login is not waited for there: the first task does.
"""

from __future__ import annotations

import os
from typing import Any

import requests
from celery import Celery, Task
from celery.signals import worker_process_init, worker_process_shutdown

from tessaline.auth import AuthManager
from tessaline.errors import LOGIN_ERRORS, is_final
from tessaline.integrations.requests import WalletAuth
from tessaline.keeper import EraBoard, Keeper
from tessaline.keys import from_environment

URL = os.environ.get("SERVICE_URL", "https://service.example")

app = Celery("wallet", config_source="celeryconfig")
board = EraBoard()
# Of the process that works, once it has begun.
keepers: list[Keeper] = []


@worker_process_init.connect
def begin(**_: object) -> None:
    keepers.append(Keeper(AuthManager(from_environment("WALLET_KEY"), URL), era_board=board))
    keepers[0].start(wait=False)


@worker_process_shutdown.connect
def end(**_: object) -> None:
    keepers.pop().close()


@app.task(bind=True, max_retries=10)
def rename(self: Task[Any, Any], name: str) -> int:
    """Give the wallet a display name; the status of the service's answer."""
    try:
        answer = requests.post(
            f"{URL}/api/profile/display_name",
            json={"display_name": name},
            auth=WalletAuth(keepers[0], URL),
            timeout=30,
        )
    except LOGIN_ERRORS as error:
        if is_final(error):
            raise
        raise self.retry(exc=error, countdown=min(2**self.request.retries, 600)) from None
    return answer.status_code


@app.task
def era(number: int) -> None:
    """Announce an era to all processes of the worker that gets this."""
    keepers[0].notify_era_change(number)

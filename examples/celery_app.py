"""Celery workers that call a service in a wallet's name.

    SERVICE_URL=https://service.example WALLET_KEY=... celery --app celery_app worker --concurrency 4

A `celeryconfig.py` next to it names broker and results. Each process of the pool has its own keeper
from start to end; programs that only send tasks create none and need no key. The board of eras is
created at import, before the worker forks its pool, so all processes of that worker share it: an era that
reaches one process by the task `era` reaches all. Celery gives a process four seconds to start, so the
process does not wait for the login: the first task does.
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
# Filled in the worker process when it starts.
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
    """Give the wallet a display name; return the status of the response."""
    try:
        response = requests.post(
            f"{URL}/api/profile/display_name",
            json={"display_name": name},
            auth=WalletAuth(keepers[0], URL),
            timeout=30,
        )
    except LOGIN_ERRORS as error:
        if is_final(error):
            raise
        raise self.retry(exc=error, countdown=min(2**self.request.retries, 600)) from None
    return response.status_code


@app.task
def era(number: int) -> None:
    """Announce an era to all processes of the worker that runs this."""
    keepers[0].notify_era_change(number)

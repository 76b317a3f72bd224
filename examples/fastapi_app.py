"""A FastAPI application that calls a service in a wallet's name.

    SERVICE_URL=https://service.example WALLET_KEY=... uvicorn fastapi_app:app

It starts whether or not the service is up, and survives its outages: while the token is valid no
request waits, and without a token no thread is blocked. `GET /health` tells a load balancer whether the
service can be called, and operators why not, so keep it internal; `POST /name/Ada` calls the service.
"""

from __future__ import annotations

import logging
import os
from collections.abc import AsyncGenerator
from contextlib import asynccontextmanager
from dataclasses import dataclass

import httpx
from fastapi import FastAPI, Request, Response

from tessaline.aio import AsyncTokens
from tessaline.auth import AuthManager
from tessaline.errors import LOGIN_ERRORS
from tessaline.integrations.httpx import WalletAuth
from tessaline.keeper import Keeper
from tessaline.keys import from_environment

logger = logging.getLogger(__name__)


@dataclass
class Service:
    """What the endpoints use."""

    keeper: Keeper
    client: httpx.AsyncClient


@asynccontextmanager
async def lifespan(app: FastAPI) -> AsyncGenerator[None]:
    url = os.environ["SERVICE_URL"]
    with Keeper(AuthManager(from_environment("WALLET_KEY"), url)) as keeper:
        keeper.start(wait=False)
        async with (
            AsyncTokens(keeper) as tokens,
            httpx.AsyncClient(base_url=url, auth=WalletAuth(tokens, url)) as client,
        ):
            app.state.service = Service(keeper, client)
            yield


app = FastAPI(lifespan=lifespan)


def service_of(request: Request) -> Service:
    service: Service = request.app.state.service
    return service


@app.get("/health")
async def health(request: Request, response: Response) -> dict[str, str | float | None]:
    status = service_of(request).keeper.status()
    if status.seconds_left == 0.0:
        response.status_code = 503
    hours = round(status.seconds_left / 3600, 1)
    return {"state": status.state, "hours_left": hours, "reason": status.reason}


@app.post("/name/{name}")
async def rename(name: str, request: Request, response: Response) -> dict[str, str]:
    try:
        answer = await service_of(request).client.post(
            "/api/profile/display_name", json={"display_name": name}
        )
    except (*LOGIN_ERRORS, httpx.TransportError) as error:
        # Its message may name hosts and proxies, which are internal.
        logger.warning("the service was not called: %s", error)
        response.status_code = 503
        return {"error": type(error).__name__}
    response.status_code = answer.status_code
    return {"name": name} if answer.is_success else {"error": "the service did not want this name"}

"""The HTTP endpoints of the service."""

import base64
import json
from typing import Any

from starlette.applications import Starlette
from starlette.exceptions import HTTPException
from starlette.requests import Request
from starlette.responses import JSONResponse
from starlette.routing import BaseRoute, Route

from .refusal import Refusal
from .service import Service
from .wallets import checksum_address

_METHODS = ["DELETE", "GET", "HEAD", "OPTIONS", "PATCH", "POST", "PUT"]


class Json(JSONResponse):
    """JSON in ASCII: a request may have escaped lone surrogates, which cannot be encoded."""

    def render(self, content: Any) -> bytes:
        return json.dumps(content, separators=(",", ":")).encode()


async def json_object(request: Request) -> dict[str, Any]:
    """The request's JSON object; Refusal 400 for another media type, bad JSON or another value."""
    media_type = request.headers.get("content-type", "").partition(";")[0].strip().lower()
    if media_type != "application/json":
        raise Refusal(400, "invalid_content_type")
    return await object_in(request)


async def object_in(request: Request) -> dict[str, Any]:
    """The JSON object in the request's body, of any media type; Refusal 400 for anything else."""
    try:
        value = json.loads(await request.body())
    except (ValueError, RecursionError):
        raise Refusal(400, "invalid_json") from None
    if not isinstance(value, dict):
        raise Refusal(400, "invalid_request")
    return value


class Endpoints:
    """One method per endpoint, over one `service`."""

    def __init__(self, service: Service) -> None:
        self._service = service

    def routes(self) -> list[BaseRoute]:
        return [
            Route("/auth/register", self.register, methods=["POST"]),
            Route("/auth/challenge", self.challenge, methods=["POST"]),
            Route("/auth/verify", self.verify, methods=["POST"]),
            Route("/api/profile/display_name", self.display_name, methods=["POST"]),
            Route("/_echo", echo, methods=_METHODS),
            Route("/_echo/{rest:path}", echo, methods=_METHODS),
        ]

    async def register(self, request: Request) -> Json:
        body = await json_object(request)
        address = checksum_address(body.get("wallet_address"))
        invite = body.get("invite_code")
        if not (invite is None or isinstance(invite, str)):
            raise Refusal(400, "invalid_request")
        self._service.register(address, invite)
        return Json({"wallet_address": address})

    async def challenge(self, request: Request) -> Json:
        body = await json_object(request)
        address = checksum_address(body.get("wallet_address"))
        if not self._service.may_log_in(address):
            raise Refusal(401, "not_registered")
        challenge_id, message = self._service.challenges.issue(address)
        return Json({"challenge_id": challenge_id, "message": message})

    async def verify(self, request: Request) -> Json:
        body = await json_object(request)
        address = self._service.challenges.answer(body.get("challenge_id"), body.get("signature"))
        token, expires_at = self._service.tokens.issue(address)
        secret = self._service.wallets.secret_of(address)
        return Json({"token": token, "expires_at": expires_at, "wallet_secret": secret})

    async def display_name(self, request: Request) -> Json:
        address = self._service.tokens.bearer(request.headers.get("authorization"))
        body = await json_object(request)
        if "display_name" not in body:
            raise Refusal(400, "invalid_request")
        self._service.wallets.rename(address, body["display_name"])
        return Json({"wallet_address": address, "display_name": body["display_name"]})


async def echo(request: Request) -> Json:
    """Return the request; header names are in lowercase."""
    headers = [[name.decode("latin-1"), value.decode("latin-1")] for name, value in request.headers.raw]
    return Json(
        {
            "method": request.method,
            "path": request.scope["raw_path"].decode("latin-1"),
            "query": request.scope["query_string"].decode("latin-1"),
            "headers": headers,
            "body_base64": base64.b64encode(await request.body()).decode(),
        }
    )


async def _refused(_request: Request, error: Exception) -> Json:
    assert isinstance(error, Refusal)
    return Json({"error": error.error}, error.status)


async def _http_error(_request: Request, error: Exception) -> Json:
    assert isinstance(error, HTTPException)
    name = {404: "not_found", 405: "method_not_allowed"}.get(error.status_code, "http_error")
    return Json({"error": name}, error.status_code, headers=error.headers)


async def _broken(_request: Request, _error: Exception) -> Json:
    return Json({"error": "internal_error"}, 500)


def make_app(routes: list[BaseRoute]) -> Starlette:
    """The application of `routes`, in which every error response is a JSON object with the key "error"."""
    handlers: dict[Any, Any] = {Refusal: _refused, HTTPException: _http_error, Exception: _broken}
    app = Starlette(routes=routes, exception_handlers=handlers)
    app.router.redirect_slashes = False
    return app

"""The machine-readable description of the server: OpenAPI 3.1 at GET /openapi.json."""

from typing import Any

from starlette.requests import Request
from starlette.routing import Route

from . import __version__
from .app import Json
from .endpoints import DESCRIPTION_PATH
from .openapi_control import CONTROL_PATHS, CONTROL_SCHEMAS
from .openapi_parts import json_content, operation, reference, refusals, responded, sent

_ADDRESS = {
    "type": "string",
    "pattern": "^0x[0-9a-f]{40}$",
    "description": "The wallet's address, in lowercase.",
}
_CHECKSUM_ADDRESS = {
    "type": "string",
    "pattern": "^0x[0-9a-fA-F]{40}$",
    "description": "The wallet's address with its checksum (EIP-55).",
}
_CHALLENGE_ID = {"type": "string", "description": "Opaque: to be sent back unchanged."}


def _object(required: dict[str, Any], optional: dict[str, Any] | None = None) -> dict[str, Any]:
    return {"type": "object", "required": list(required), "properties": {**required, **(optional or {})}}


_SCHEMAS: dict[str, Any] = {
    "Registration": _object(
        {"wallet_address": _ADDRESS},
        {
            "invite_code": {
                "type": ["string", "null"],
                "description": "Required for a new wallet if the server is invite-only.",
            }
        },
    ),
    "Registered": _object({"wallet_address": _CHECKSUM_ADDRESS}),
    "ChallengeRequest": _object({"wallet_address": _ADDRESS}),
    "Challenge": _object(
        {
            "challenge_id": _CHALLENGE_ID,
            "message": {"type": "string", "description": "The text to sign as a personal message (EIP-191)."},
        }
    ),
    "ChallengeAnswer": _object(
        {
            "challenge_id": _CHALLENGE_ID,
            "signature": {
                "type": "string",
                "pattern": "^0x[0-9a-fA-F]{130}$",
                "description": "r, s and v, v being 27 or 28, over the challenge's message.",
            },
        }
    ),
    "Login": _object(
        {
            "token": {"type": "string", "description": "The bearer token, a JWT."},
            "expires_at": {"type": "integer", "description": "Unix seconds."},
            "wallet_secret": {
                "type": "string",
                "contentEncoding": "base64",
                "description": "32 bytes, the same at each login of a wallet.",
            },
        }
    ),
    "Naming": _object(
        {
            "display_name": {
                "type": ["string", "null"],
                "pattern": "^[a-zA-Z0-9_\\- ]{3,32}$",
                "description": "null removes the name.",
            }
        }
    ),
    "Named": _object({"wallet_address": _CHECKSUM_ADDRESS, "display_name": {"type": ["string", "null"]}}),
    "Refusal": _object({"error": {"type": "string"}}),
    **CONTROL_SCHEMAS,
}

_LATER = {status: {"$ref": "#/components/responses/Later"} for status in ("429", "503")}

_PATHS: dict[str, Any] = {
    "/auth/register": {
        "post": operation(
            "register",
            "login",
            "Register a wallet; has no effect if it is registered.",
            sent("Registration"),
            responded("Registered"),
            refusals("400", "403", "413"),
            _LATER,
        )
    },
    "/auth/challenge": {
        "post": operation(
            "challenge",
            "login",
            "Request a challenge, which can be used once.",
            sent("ChallengeRequest"),
            responded("Challenge"),
            refusals("400", "401", "413"),
            _LATER,
        )
    },
    "/auth/verify": {
        "post": operation(
            "verify",
            "login",
            "Send the wallet's signature of the challenge; returns the token.",
            sent("ChallengeAnswer"),
            responded("Login"),
            refusals("400", "401", "404", "409", "410", "413"),
            _LATER,
        )
    },
    "/api/profile/display_name": {
        "post": operation(
            "display_name",
            "profile",
            "Give the wallet a name.",
            sent("Naming"),
            responded("Named"),
            refusals("400", "401", "413"),
            _LATER,
        )
        | {"security": [{"token": []}]}
    },
    DESCRIPTION_PATH: {
        "get": operation(
            "description",
            "control",
            "This description.",
            {"200": {"description": "OpenAPI 3.1.", "content": json_content({"type": "object"})}},
        )
    },
    **CONTROL_PATHS,
}

_LATER_ANSWER = {
    "description": "Retry after that many seconds. Only as a fault.",
    "headers": {"Retry-After": {"schema": {"type": "string"}}},
    "content": json_content(reference("Refusal")),
}

DESCRIPTION: dict[str, Any] = {
    "openapi": "3.1.0",
    "info": {
        "title": "tessaline-devserver",
        "version": __version__,
        "description": "A login with a wallet, and control of the development server.",
        "license": {"name": "MIT", "identifier": "MIT"},
    },
    "servers": [{"url": "/"}],
    "paths": _PATHS,
    "components": {
        "schemas": _SCHEMAS,
        "responses": {"Later": _LATER_ANSWER},
        "securitySchemes": {"token": {"type": "http", "scheme": "bearer", "bearerFormat": "JWT"}},
    },
}


async def _describe(_request: Request) -> Json:
    return Json(DESCRIPTION)


def description_route() -> Route:
    return Route(DESCRIPTION_PATH, _describe, methods=["GET"])

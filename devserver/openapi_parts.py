"""Common parts of the OpenAPI description."""

from typing import Any

Part = dict[str, Any]

_MEANINGS = {
    "400": "The request is invalid.",
    "401": "The wallet, its signature or its token is not accepted.",
    "403": "The invite code is missing or not valid.",
    "404": "There is no such challenge.",
    "409": "The challenge has been used.",
    "410": "The challenge has expired.",
    "413": "The request is longer than 1 MiB.",
}


def reference(schema: str) -> Part:
    return {"$ref": f"#/components/schemas/{schema}"}


def json_content(schema: Part) -> Part:
    return {"application/json": {"schema": schema}}


def sent(schema: str) -> Part:
    """The request's body."""
    return {"requestBody": {"required": True, "content": json_content(reference(schema))}}


def responded(schema: str, meaning: str = "Done.") -> Part:
    """The response on success."""
    return {"200": {"description": meaning, "content": json_content(reference(schema))}}


def refusals(*statuses: str) -> Part:
    """Error responses."""
    return {
        status: {"description": _MEANINGS[status], "content": json_content(reference("Refusal"))}
        for status in statuses
    }


def operation(name: str, tag: str, summary: str, *parts: Part) -> Part:
    """One method of one path, with the request and the responses in `parts`."""
    described: Part = {"operationId": name, "tags": [tag], "summary": summary, "responses": {}}
    for part in parts:
        target = described if "requestBody" in part else described["responses"]
        target.update(part)
    return described

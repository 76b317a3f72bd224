"""What the parts of the OpenAPI description have in common."""

from typing import Any

Part = dict[str, Any]

_MEANINGS = {
    "400": "The request is not understood.",
    "401": "The wallet, its signature or its token is not accepted.",
    "403": "The invite code is missing or no longer good.",
    "404": "There is no such challenge.",
    "409": "The challenge was answered before.",
    "410": "The challenge has expired.",
    "413": "The request is longer than a mebibyte.",
}


def reference(schema: str) -> Part:
    return {"$ref": f"#/components/schemas/{schema}"}


def json_content(schema: Part) -> Part:
    return {"application/json": {"schema": schema}}


def sent(schema: str) -> Part:
    """The request's body."""
    return {"requestBody": {"required": True, "content": json_content(reference(schema))}}


def responded(schema: str, meaning: str = "Done.") -> Part:
    """The answer where all went well."""
    return {"200": {"description": meaning, "content": json_content(reference(schema))}}


def refusals(*statuses: str) -> Part:
    """The answers that refuse."""
    return {
        status: {"description": _MEANINGS[status], "content": json_content(reference("Refusal"))}
        for status in statuses
    }


def operation(name: str, tag: str, summary: str, *parts: Part) -> Part:
    """One method of one path, with what is `sent` and the answers of `parts`."""
    described: Part = {"operationId": name, "tags": [tag], "summary": summary, "responses": {}}
    for part in parts:
        target = described if "requestBody" in part else described["responses"]
        target.update(part)
    return described

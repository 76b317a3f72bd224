"""The server's OpenAPI description matches the server."""

import json
from collections.abc import Iterator
from typing import Any

import pytest
from devserver_client import Client, Reply
from starlette.routing import Route

from devserver.app import Endpoints
from devserver.control import Control
from devserver.endpoints import DESCRIPTION_PATH
from devserver.faults import KINDS
from devserver.openapi import DESCRIPTION
from devserver.rules import STATUS
from devserver.testing import DevServer

SCHEMAS = DESCRIPTION["components"]["schemas"]
TYPES = {
    "string": str,
    "boolean": bool,
    "integer": int,
    "number": int | float,
    "object": dict,
    "array": list,
    "null": type(None),
}


def resolved(schema: dict[str, Any]) -> dict[str, Any]:
    if "$ref" not in schema:
        return schema
    found: dict[str, Any] = DESCRIPTION
    for part in schema["$ref"].removeprefix("#/").split("/"):
        found = found[part]
    return found


def references(value: Any) -> Iterator[dict[str, Any]]:
    if isinstance(value, dict):
        if "$ref" in value:
            yield value
        value = list(value.values())
    if isinstance(value, list):
        for item in value:
            yield from references(item)


def assert_fits(value: Any, schema: dict[str, Any]) -> None:
    """A value has the types of its schema, all its keys and no others."""
    schema = resolved(schema)
    kinds = schema["type"] if isinstance(schema["type"], list) else [schema["type"]]
    assert any(isinstance(value, TYPES[kind]) for kind in kinds)
    if isinstance(value, list):
        for item in value:
            assert_fits(item, schema["items"])
    if isinstance(value, dict):
        properties = schema.get("properties", {})
        assert set(schema.get("required", [])) <= set(value)
        for key, item in value.items():
            assert_fits(item, properties[key] if key in properties else schema["additionalProperties"])


def assert_described(reply: Reply, path: str, method: str = "post") -> None:
    described = resolved(DESCRIPTION["paths"][path][method]["responses"][str(reply.status)])
    assert_fits(reply.json, described["content"]["application/json"]["schema"])


def test_it_is_served_and_neither_counted_nor_met_by_faults(server: DevServer, client: Client) -> None:
    server.faults("*", [{"kind": "reset", "times": None}])
    reply = client.request("GET", DESCRIPTION_PATH)
    assert reply.json == json.loads(json.dumps(DESCRIPTION))
    assert reply.headers["Content-Type"] == "application/json"
    assert server.requests == []


def test_it_has_every_route_and_method() -> None:
    none: Any = None
    routes = [*Endpoints(none).routes(), *Control(none, none, none, none, none).routes()]
    served = {
        (route.path, method.lower())
        for route in routes
        if isinstance(route, Route) and not route.path.startswith("/_echo")
        for method in (route.methods or set()) - {"HEAD"}
    }
    described = {(path, method) for path, methods in DESCRIPTION["paths"].items() for method in methods}
    assert described == served | {(DESCRIPTION_PATH, "get")}


def test_its_references_lead_somewhere() -> None:
    found = list(references(DESCRIPTION))
    assert len(found) > len(KINDS)
    assert all(resolved(reference) for reference in found)


def test_every_kind_of_fault_is_in_it_once() -> None:
    described = [resolved(one) for name in ("VerifyFault", "ConnectFault") for one in SCHEMAS[name]["oneOf"]]
    by_kind = {one["properties"]["kind"]["const"]: set(one["properties"]) - {"kind"} for one in described}
    assert by_kind.keys() == KINDS.keys()
    assert len(described) == len(KINDS) + 1
    for name, fields in by_kind.items():
        assert fields >= set(KINDS[name].fields)
    general = [resolved(one)["properties"]["kind"]["const"] for one in SCHEMAS["Fault"]["oneOf"]]
    assert general == [name for name, kind in KINDS.items() if kind.only_at is None]
    assert SCHEMAS["StatusFault"]["properties"]["status"] == STATUS.schema


def test_answers_are_as_described(server: DevServer, client: Client) -> None:
    assert_described(client.challenge(), "/auth/challenge")
    assert_described(client.register(), "/auth/register")
    challenge = client.challenge()
    assert_described(challenge, "/auth/challenge")
    login = client.answer(challenge.json)
    assert_described(login, "/auth/verify")
    assert_described(client.answer(challenge.json), "/auth/verify")
    assert_described(client.name("Ada Lovelace", login.json["token"]), "/api/profile/display_name")
    assert_described(client.name("no", login.json["token"]), "/api/profile/display_name")
    assert_described(client.request("POST", "/auth/register", b"x" * (1 << 20 | 1)), "/auth/register")
    faults = client.post("/_control/faults", {"verify": [{"kind": "hold", "times": None}, {"kind": "reset"}]})
    assert_described(faults, "/_control/faults")
    assert_described(
        client.post("/_control/settings", {"era": None, "claims": {"a": 1}}), "/_control/settings"
    )
    assert_described(client.post("/_control/settings", {"x": None}), "/_control/settings")
    wait = client.post("/_control/wait", {"endpoint": "verify", "count": 2, "timeout": 1})
    assert_described(wait, "/_control/wait")
    assert_described(client.request("GET", "/_control/state"), "/_control/state", "get")
    assert_described(client.request("POST", "/_control/release"), "/_control/release")
    assert_described(client.request("POST", "/_control/reset"), "/_control/reset")


@pytest.mark.parametrize("path", DESCRIPTION["paths"])
def test_another_method_is_told_which_ones_there_are(client: Client, path: str) -> None:
    reply = client.request("DELETE", path)
    assert (reply.status, reply.error) == (405, "method_not_allowed")
    allowed = {method.strip().lower() for method in reply.headers["Allow"].split(",")}
    assert allowed - {"head"} == set(DESCRIPTION["paths"][path])

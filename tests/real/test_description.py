"""Third-party programs use the development server's OpenAPI description, and test the server by it."""

from __future__ import annotations

import os
import subprocess
import sys
import urllib.request
from pathlib import Path

import pytest

from devserver.testing import DevServer

# It never logs in, because generated requests have no signature: it tests errors, forms and statuses.
SERVICE = ("--include-path-regex", "^/(auth|api|openapi)", "--phases", "coverage,fuzzing")
# Its coverage of all fields of all faults takes minutes.
CONTROL = ("--include-path-regex", "^/_control", "--phases", "fuzzing")
# A request that waits must not wait long.
HOOKS = """
import schemathesis

@schemathesis.hook
def before_call(context, case, kwargs):
    if case.path.endswith("/wait") and isinstance(case.body, dict) and "timeout" in case.body:
        if isinstance(case.body["timeout"], float | int):
            case.body["timeout"] = min(case.body["timeout"], 0)
"""
WELL_FORMED = """
import json, sys
import jsonschema_rs

with open(sys.argv[1]) as file:
    schemas = json.load(file)["components"]["schemas"]
assert schemas
for schema in schemas.values():
    jsonschema_rs.meta.validate({"$schema": "https://json-schema.org/draft/2020-12/schema", **schema})
"""
PROGRAM = """
import sys
from client import AuthenticatedClient, Client
from client.api.login import challenge, register
from client.api.profile import display_name
from client.api.control import faults, state
from client.models import ChallengeRequest, Naming, Refusal, Registration, Scripts, StatusFault

client = Client(base_url=sys.argv[1])
address = "0x7e5f4552091a69125d5dfcb7b8c2659029395bdf"
asked, wallet = ChallengeRequest(wallet_address=address), Registration(wallet_address=address)
assert challenge.sync(client=client, body=asked).error == "not_registered"
assert register.sync(client=client, body=wallet).wallet_address.lower() == address
assert "Nonce" in challenge.sync(client=client, body=asked).message
faults.sync(client=client, body=Scripts(register=[StatusFault(kind="status", status=503)]))
refused = register.sync_detailed(client=client, body=wallet)
assert refused.status_code == 503 and isinstance(refused.parsed, Refusal)
stranger = AuthenticatedClient(base_url=sys.argv[1], token="none")
assert display_name.sync(client=stranger, body=Naming(display_name="abc")).error == "unauthorized"
assert [entry.status for entry in state.sync(client=client).requests] == [401, 200, 200, 503, 401]
"""


def run(folder: Path, *arguments: str, **environment: str) -> subprocess.CompletedProcess[str]:
    """Runs Python in that folder, with the packages of `make real` in addition to those of .venv."""
    packages = os.pathsep.join(filter(None, [os.environ.get("TESSALINE_REAL_PACKAGES"), str(folder)]))
    # For the formatter that the generator calls.
    path = os.pathsep.join([str(Path(sys.executable).parent), os.environ["PATH"]])
    return subprocess.run(
        [sys.executable, *arguments],
        cwd=folder,
        env=os.environ | {"PYTHONPATH": packages, "PATH": path} | environment,
        capture_output=True,
        text=True,
        timeout=50,
    )


@pytest.fixture
def description(server: DevServer, tmp_path: Path) -> Path:
    file = tmp_path / "openapi.json"
    with urllib.request.urlopen(f"{server.url}/openapi.json", timeout=10) as answer:
        file.write_bytes(answer.read())
    return file


def test_its_schemas_are_well_formed(description: Path) -> None:
    ended = run(description.parent, "-c", WELL_FORMED, str(description))
    assert ended.returncode == 0, ended.stderr


def test_a_client_that_is_generated_from_it_talks_to_the_server(server: DevServer, description: Path) -> None:
    folder = description.parent
    generate = ["-m", "openapi_python_client", "generate", "--path", str(description), "--meta", "none"]
    made = run(folder, *generate, "--output-path", "client", "--fail-on-warning")
    assert made.returncode == 0, made.stdout + made.stderr
    ended = run(folder, "-c", PROGRAM, server.url)
    assert ended.returncode == 0, ended.stderr


@pytest.mark.parametrize(("chosen", "examples"), [(SERVICE, 20), (CONTROL, 10)], ids=["service", "control"])
def test_requests_that_are_generated_from_it_find_nothing(
    server: DevServer, tmp_path: Path, chosen: tuple[str, ...], examples: int
) -> None:
    (tmp_path / "hooks.py").write_text(HOOKS)
    options = [
        "--checks",
        "all",
        "--seed",
        "1",
        "--max-examples",
        str(examples),
        "--generation-deterministic",
    ]
    command = ["-m", "schemathesis.cli", "run", f"{server.url}/openapi.json", *options, *chosen]
    ended = run(tmp_path, *command, SCHEMATHESIS_HOOKS="hooks")
    assert ended.returncode == 0, ended.stdout + ended.stderr
    assert f" {'5' if chosen is SERVICE else '6'} passed" in ended.stdout

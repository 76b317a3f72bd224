"""HTTP clients that a program does not use are not loaded."""

from __future__ import annotations

import subprocess
import sys
import tomllib
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
CLIENTS = {"requests", "httpx", "aiohttp", "grpc"}
BESIDE = ("auth", "keeper", "aio", "integrations", "testing")


def loaded_by(module: str) -> set[str]:
    """The top-level names of all modules that importing this one loads."""
    program = f"import sys, {module}; print(*{{name.partition('.')[0] for name in sys.modules}})"
    ended = subprocess.run(
        [sys.executable, "-c", program], capture_output=True, text=True, timeout=60, check=True
    )
    return set(ended.stdout.split())


@pytest.mark.parametrize("module", BESIDE)
def test_the_modules_beside_load_no_client(module: str) -> None:
    assert loaded_by(f"tessaline.{module}") & (CLIENTS | {"anyio", "greenlet", "pytest", "yarl"}) == set()


@pytest.mark.parametrize("client", sorted(CLIENTS))
def test_each_integration_loads_its_own_client_and_no_other(client: str) -> None:
    assert loaded_by(f"tessaline.integrations.{client}") & CLIENTS == {client}


def test_each_has_an_extra_that_brings_it() -> None:
    project = tomllib.loads((ROOT / "pyproject.toml").read_text())["project"]
    extras: dict[str, list[str]] = project["optional-dependencies"]
    brought = {name: {one.partition(">")[0] for one in wanted} for name, wanted in extras.items()}
    assert {name: brought[name] for name in CLIENTS} == {
        "requests": {"requests"},
        "httpx": {"httpx"},
        "aiohttp": {"aiohttp"},
        "grpc": {"grpcio"},
    }

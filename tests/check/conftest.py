"""One server per scheme for the whole folder, and the command in this process."""

from __future__ import annotations

import json
import secrets
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import pytest

from tessaline import auth
from tessaline.__main__ import main
from tests.shared.servers import (
    either,
    http_process,
    https_process,
    https_server,
    server,
    trusted,
    unused_port,
)
from tests.transport.conftest import no_proxy, raw

# Fixtures.
__all__ = [
    "either",
    "http_process",
    "https_process",
    "https_server",
    "no_proxy",
    "raw",
    "server",
    "trusted",
    "unused_port",
]


@dataclass(frozen=True)
class Outcome:
    """The result of the command."""

    code: int | str | None
    output: str
    errors: str

    @property
    def report(self) -> dict[str, Any]:
        assert self.errors == ""
        told: dict[str, Any] = json.loads(self.output)
        return told

    def lines(self, label: str) -> list[str]:
        """The report's lines with that label."""
        split = [line.partition(" ") for line in self.output.splitlines()]
        return [rest.strip() for first, _, rest in split if first == label]


type Check = Callable[..., Outcome]


@pytest.fixture
def key() -> str:
    return secrets.token_hex(32)


@pytest.fixture
def key_file(tmp_path: Path, key: str) -> Path:
    path = tmp_path / "wallet.key"
    path.touch(0o600)
    path.write_text(f"{key}\n")
    return path


@pytest.fixture
def run(capsys: pytest.CaptureFixture[str]) -> Check:
    """Runs the command with these arguments."""

    def call(*arguments: object) -> Outcome:
        capsys.readouterr()
        code: int | str | None
        try:
            code = main(["check", *map(str, arguments)])
        except SystemExit as ended:
            code = ended.code
        told = capsys.readouterr()
        return Outcome(code, told.out, told.err)

    return call


@pytest.fixture
def check(run: Check, key_file: Path) -> Check:
    """The same with a key."""
    return lambda url, *options: run(url, "--key-file", key_file, *options)


@pytest.fixture(autouse=True)
def no_pauses(no_proxy: None, monkeypatch: pytest.MonkeyPatch) -> None:
    """No back-off between attempts."""
    monkeypatch.setattr(auth, "_BACKOFF_BASE", 0)

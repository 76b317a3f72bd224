"""Reads the tables, and makes what they are tried on. Where they come from is said beside them."""

from __future__ import annotations

import csv
import json
from pathlib import Path

from tessaline import auth
from tests.shared.good_service import GoodService

DATA = Path(__file__).with_name("data")


def rows(name: str) -> list[dict[str, str]]:
    """The rows of a file of tab-separated columns."""
    with (DATA / name).open(encoding="utf-8", newline="") as file:
        return list(csv.DictReader(file, delimiter="\t", quoting=csv.QUOTE_NONE, strict=True))


def tokens() -> list[dict[str, str]]:
    return json.loads((DATA / "tokens/json_web_signatures.json").read_text(encoding="utf-8"))


def manager_of(service: GoodService, key: str = "1" * 64) -> auth.AuthManager:
    return auth.AuthManager(key, "https://auth.example.test", clock=lambda: 1000.0, _transport=service)

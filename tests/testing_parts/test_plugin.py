"""pytest has the fixtures where they are enabled, and nowhere else."""

from __future__ import annotations

import tomllib
from importlib import import_module
from pathlib import Path

import pytest

from tests.testing_parts.runs import PLUGIN, outcome_of

pytestmark = pytest.mark.process

ROOT = Path(__file__).resolve().parents[2]
FIXTURES = "tessaline.testing.fixtures"
ASKED_FOR = "[pytest]\ntessaline_fixtures = true\n"

TESTS = """
from tessaline.testing import HOUR, claims_of

def test_a_day(tessaline_clock, tessaline_manager):
    tessaline_manager.authenticate()
    tessaline_clock.advance(21 * HOUR)
    assert claims_of(tessaline_manager.get_token())["login"] == 2

def test_another_service(tessaline_keeper, tessaline_service):
    assert tessaline_service.logins == 1
    assert tessaline_service.accepts(tessaline_keeper.get_token())
"""

SEES_NOTHING = """
import sys

def test_nothing_is_loaded(request):
    assert "tessaline.testing.plugin" in sys.modules
    assert {"tessaline.auth", "tessaline.keeper", "tessaline.testing.fixtures"}.isdisjoint(sys.modules)
    assert not request.config.getini("tessaline_fixtures")
"""


def test_the_package_declares_the_plugin() -> None:
    project = tomllib.loads((ROOT / "pyproject.toml").read_text())["project"]
    assert project["entry-points"]["pytest11"] == {"tessaline": PLUGIN}
    module = import_module(PLUGIN)
    assert callable(module.pytest_addoption) and callable(module.pytest_configure)


def test_by_itself_it_loads_nothing(tmp_path: Path) -> None:
    said = outcome_of(tmp_path, SEES_NOTHING, "-p", PLUGIN)
    assert "1 passed" in said, said


def test_an_installed_package_is_found_by_pytest_itself(tmp_path: Path) -> None:
    metadata = tmp_path / "site" / "declares_it-0.dist-info"
    metadata.mkdir(parents=True)
    (metadata / "METADATA").write_text("Metadata-Version: 2.1\nName: declares-it\nVersion: 0\n")
    (metadata / "entry_points.txt").write_text(f"[pytest11]\ntessaline = {PLUGIN}\n")
    said = outcome_of(tmp_path, TESTS, ini=ASKED_FOR, installed=metadata.parent)
    assert "2 passed" in said, said


def test_without_being_asked_for_there_is_no_fixture(tmp_path: Path) -> None:
    said = outcome_of(tmp_path, TESTS, "-p", PLUGIN)
    assert "2 errors" in said, said
    assert "fixture 'tessaline_clock' not found" in said


def test_an_ini_option_brings_them(tmp_path: Path) -> None:
    said = outcome_of(tmp_path, TESTS, "-p", PLUGIN, ini=ASKED_FOR)
    assert "2 passed" in said, said


def test_so_does_naming_their_module(tmp_path: Path) -> None:
    said = outcome_of(tmp_path, TESTS, "-p", PLUGIN, "-p", FIXTURES, ini=ASKED_FOR)
    assert "2 passed" in said, said
    assert "2 passed" in outcome_of(tmp_path, TESTS, "-p", FIXTURES)


def test_a_test_that_leaves_things_open_leaves_nothing_behind(tmp_path: Path) -> None:
    tests = """
import threading

kept = []

def test_first(tessaline_keeper):
    kept.extend([tessaline_keeper, set(threading.enumerate()) - {threading.main_thread()}])
    assert kept[1]

def test_second():
    for thread in kept[1]:
        thread.join(10)
    assert not any(thread.is_alive() for thread in kept[1])
    assert kept[0].status().state == "closed"
"""
    said = outcome_of(tmp_path, tests, "-p", FIXTURES)
    assert "2 passed" in said, said

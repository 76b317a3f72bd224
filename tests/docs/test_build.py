"""`make docs` itself: it needs packages that nothing else needs, so it runs with the slow tests."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from .pages import DOCS

ROOT = DOCS.parent

pytestmark = [
    pytest.mark.process,
    pytest.mark.timeout(600),
    pytest.mark.skipif(
        os.environ.get("CI") != "true" and not os.environ.get("TESSALINE_SLOW_TESTS"),
        reason="installs what builds the documentation: runs with CI=true or TESSALINE_SLOW_TESTS=1",
    ),
]


@pytest.fixture
def project(tmp_path: Path) -> Path:
    """A copy of the inputs of the documentation, with the project's own environment."""
    for name in ("docs", "docsite", "tools", "requirements", "src", "examples"):
        shutil.copytree(ROOT / name, tmp_path / name, ignore=shutil.ignore_patterns("__pycache__"))
    for name in ("CONTRIBUTING.md", "CHANGELOG.md"):
        shutil.copy(ROOT / name, tmp_path)
    shutil.rmtree(tmp_path / "docs/benchmarks", ignore_errors=True)
    (tmp_path / ".venv").symlink_to(ROOT / ".venv")
    # Installed once for all tests, and for `make docs`.
    (ROOT / "build/docs-packages").mkdir(parents=True, exist_ok=True)
    (tmp_path / "build").mkdir()
    (tmp_path / "build/docs-packages").symlink_to(ROOT / "build/docs-packages")
    return tmp_path


def build(project: Path) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        ["tools/docs"], cwd=project, capture_output=True, text=True, stdin=subprocess.DEVNULL, timeout=500
    )


def pages_of(project: Path) -> int:
    built = build(project)
    assert (built.returncode, built.stderr) == (0, "")
    said = re.fullmatch(r"documentation: (\d+) pages in build/docs", built.stdout.splitlines()[-1])
    assert said is not None
    return int(said[1])


def test_it_counts_its_pages_and_the_benchmarks_come_and_go(project: Path) -> None:
    without = pages_of(project)
    assert without == len(list(DOCS.glob("*.md")))
    folder = project / "docs/benchmarks"
    folder.mkdir()
    (folder / "README.md").write_text("# Benchmarks\n\n[code](../../docsite/pages.py)\n")
    (folder / "explanation.md").write_text("part of the page above\n")
    assert pages_of(project) == without + 1
    assert "Benchmarks" in (project / "build/docs/index.html").read_text()


@pytest.mark.parametrize(
    ("page", "text", "complaint"),
    [
        ("time.md", "[x](nowhere.md)\n", "nowhere.md"),
        ("time.md", "[x](errors.md#nowhere)\n", "#nowhere"),
        ("orphan.md", "# An orphan\n", "orphan.md"),
    ],
)
def test_a_page_that_leads_nowhere_or_from_nowhere_fails(
    project: Path, page: str, text: str, complaint: str
) -> None:
    with (project / "docs" / page).open("a") as file:
        file.write(f"\n{text}")
    built = build(project)
    assert built.returncode != 0
    assert complaint in built.stderr


def test_a_drawing_that_is_not_as_drawn_fails(project: Path) -> None:
    drawing = project / "docs/figures/login.svg"
    drawing.write_text(drawing.read_text().replace("challenge", "riddle"))
    built = build(project)
    assert built.returncode != 0
    assert "login.svg is not as drawn" in built.stderr

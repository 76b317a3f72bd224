"""Runs of pytest in a separate folder."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

from tests.sanitized import patience

PLUGIN = "tessaline.testing.plugin"


def outcome_of(
    folder: Path, tests: str, *arguments: str, ini: str = "[pytest]\n", installed: Path | None = None
) -> str:
    """The output of pytest for these tests. installed: a further folder with packages that declare plugins.

    Without it no plugin is loaded automatically: the installed package may be an older one.
    """
    (folder / "test_it.py").write_text(tests)
    (folder / "pytest.ini").write_text(ini)
    search_path = [str(installed or ""), os.environ.get("PYTHONPATH", "")]
    environment = os.environ | {"PYTHONPATH": os.pathsep.join(filter(None, search_path))}
    if installed is None:
        environment["PYTEST_DISABLE_PLUGIN_AUTOLOAD"] = "1"
    ended = subprocess.run(
        [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", *arguments],
        cwd=folder,
        env=environment,
        capture_output=True,
        text=True,
        timeout=patience(60.0),
    )
    return ended.stdout + ended.stderr

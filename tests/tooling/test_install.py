"""`pip install .` by itself, with nothing but the system packages."""

import os
import subprocess
import venv
from pathlib import Path

import pytest

from .project import ROOT, own_files

pytestmark = pytest.mark.process

slow = pytest.mark.skipif(
    os.environ.get("CI") != "true" and not os.environ.get("TESSALINE_SLOW_TESTS"),
    reason="compiles everything again: runs with CI=true or TESSALINE_SLOW_TESTS=1",
)


@slow
@pytest.mark.timeout(900)
def test_pip_installs_a_working_package_into_a_bare_environment(tmp_path: Path) -> None:
    checkout = tmp_path / "checkout"
    for path in own_files():
        copy = checkout / path.relative_to(ROOT)
        copy.parent.mkdir(parents=True, exist_ok=True)
        copy.write_bytes(path.read_bytes())
    venv.create(tmp_path / "venv", with_pip=True)
    python = str(tmp_path / "venv/bin/python")
    installation = subprocess.run(
        [python, "-m", "pip", "install", "--disable-pip-version-check", "--no-input", str(checkout)],
        cwd=tmp_path,
        capture_output=True,
        text=True,
        stdin=subprocess.DEVNULL,
    )
    assert installation.returncode == 0, installation.stdout + installation.stderr
    program = "from tessaline.auth import AuthManager; print(AuthManager('1'.zfill(64), 'http://localhost'))"
    started = subprocess.run(
        [python, "-c", program], cwd=tmp_path, capture_output=True, text=True, timeout=60
    )
    assert (started.returncode, started.stderr) == (0, "")

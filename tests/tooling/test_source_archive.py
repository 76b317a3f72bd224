"""The source archive: its content, and that it can be built into a wheel without a network."""

import os
import subprocess
import sys
import tarfile
import tomllib
import zipfile
from pathlib import Path

import pytest

from .project import ROOT, own_files
from .test_install import slow

pytestmark = pytest.mark.process

# Nothing listens at that port, in case something uses a proxy.
OFFLINE = {
    "PIP_NO_INDEX": "1",
    "PIP_CONFIG_FILE": os.devnull,
    **dict.fromkeys(["http_proxy", "https_proxy", "all_proxy"], "http://127.0.0.1:1"),
}


def run(*command: str | Path) -> str:
    done = subprocess.run(
        command,
        cwd=ROOT,
        env=os.environ | OFFLINE,
        capture_output=True,
        text=True,
        stdin=subprocess.DEVNULL,
        timeout=600,
    )
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


@pytest.fixture(scope="module")
def archive(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("archive")
    program = "import sys; from scikit_build_core.build import build_sdist; build_sdist(sys.argv[1])"
    run(sys.executable, "-c", program, folder)
    (made,) = folder.iterdir()
    return made


def test_it_holds_the_project_and_nothing_that_was_made_from_it(archive: Path) -> None:
    with tarfile.open(archive) as members:
        held = {name.partition("/")[2] for name in members.getnames()}
    excluded = tomllib.loads((ROOT / "pyproject.toml").read_text())["tool"]["scikit-build"]["sdist"][
        "exclude"
    ]
    names = {str(path.relative_to(ROOT)) for path in own_files()}
    wanted = {name for name in names if not name.startswith(tuple(f"{folder}/" for folder in excluded))}
    assert held == wanted | {"PKG-INFO"}
    assert {"LICENSE", "CMakeLists.txt", "src/tessaline/auth.pyi", "src/tessaline/py.typed"} <= held


@slow
@pytest.mark.timeout(900)
def test_it_is_installed_without_a_network(archive: Path, tmp_path: Path) -> None:
    pip = [sys.executable, "-m", "pip", "--disable-pip-version-check", "--no-input"]
    # The output of the compiler does not matter here.
    settings = ["-C", "cmake.define.CMAKE_CXX_FLAGS_RELEASE=-O0"]
    run(*pip, "wheel", "--no-build-isolation", "--no-deps", *settings, "--wheel-dir", tmp_path, str(archive))
    (wheel,) = tmp_path.glob("*.whl")
    with zipfile.ZipFile(wheel) as members:
        held = {Path(name).name for name in members.namelist()}
    assert {"__init__.py", "auth.pyi", "py.typed", "libtessaline_http.so", "LICENSE"} <= held
    assert not {name for name in held if name.endswith((".cpp", ".hpp", ".debug"))}
    run(*pip, "install", "--target", tmp_path / "installed", str(wheel))
    program = "import sys; sys.path[:0] = sys.argv[1:]; from tessaline import auth; print(auth.__file__)"
    assert run(sys.executable, "-I", "-c", program, tmp_path / "installed").startswith(str(tmp_path))

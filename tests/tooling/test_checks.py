"""`make check` and the hooks before a commit detect what they are for."""

import os
import shutil
from pathlib import Path

import pytest
import yaml

from .project import ROOT, Ended, own_files, run

pytestmark = pytest.mark.process


@pytest.fixture(scope="module")
def checkout(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A separate commit of everything but the fuzzers' inputs."""
    copy = tmp_path_factory.mktemp("checkout")
    for path in own_files():
        name = path.relative_to(ROOT)
        if not name.is_relative_to("tests/fuzz/corpus"):
            (copy / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(path, copy / name)
    (copy / ".venv").symlink_to(ROOT / ".venv")
    # The link is not the folder that .gitignore names.
    (copy / ".git/info").mkdir(parents=True)
    (copy / ".git/info/exclude").write_text("/.venv\n")
    identity = ("-c", "user.name=test", "-c", "user.email=test@localhost")
    for command in (["init", "-q"], ["add", "."], [*identity, "commit", "-q", "-m", "all"]):
        assert run("git", *command, cwd=copy).returncode == 0
    return copy


PLANTED = {
    "clang-format": ("src/tessaline/auth/steps/clock.cpp", "int  planted;\n"),
    "ruff-format": ("devserver/app.py", "planted = [1,2]\n"),
    "ruff": ("devserver/app.py", "import os\n"),
    "shellcheck": (".ci/run", "cat $planted\n"),
    "git-diff": ("README.md", "Planted.\n"),
}
PROGRAMS = {"clang-format": "clang-format-16", "shellcheck": "shellcheck"}


@pytest.mark.parametrize("part", PLANTED)
def test_a_part_of_the_check_sees_what_is_planted(part: str, checkout: Path) -> None:
    if shutil.which(PROGRAMS.get(part, "git")) is None:
        pytest.skip("`make check` installs what this needs")
    name, text = PLANTED[part]
    path = checkout / name
    kept = path.read_text()
    path.write_text(kept + text)
    ended = run("tools/check", part, cwd=checkout)
    path.write_text(kept)
    assert (ended.returncode, ended.stdout.splitlines()[-1]) == (1, f"check: FAILED: {part}")
    assert ended.stdout.split()[:2] == [part, "FAILED"]
    assert Path(name).name in ended.stdout


def test_the_check_tells_of_each_part_and_of_all(checkout: Path) -> None:
    ended = run("tools/check", "ruff-format", "git-diff", cwd=checkout)
    assert ended.returncode == 0
    assert [line.split()[:2] for line in ended.stdout.splitlines()] == [
        ["ruff-format", "ok"],
        ["git-diff", "ok"],
        ["check:", "ok"],
    ]


def test_the_check_knows_its_parts(checkout: Path) -> None:
    ended = run("tools/check", "typo", cwd=checkout)
    assert ended.returncode == 1
    assert "no part is called typo; there are: clang-format ruff-format" in ended.stderr


@pytest.mark.skipif(
    not all(map(shutil.which, PROGRAMS.values())), reason="`make check` installs what this needs"
)
def test_the_hooks_before_a_commit_see_and_mend_what_is_planted(checkout: Path, tmp_path: Path) -> None:
    source, script = checkout / "devserver/app.py", checkout / ".ci/run"
    kept, kept_script = source.read_text(), script.read_text()

    def hooks() -> Ended:
        # Skipped because it takes long, and tools/check and tools/tidy run it too.
        return run(
            ".venv/bin/pre-commit",
            *("run", "--files", "devserver/app.py", ".ci/run"),
            cwd=checkout,
            environment={"PRE_COMMIT_HOME": str(tmp_path), "SKIP": "house-rules,types,clang-tidy"},
        )

    assert hooks().returncode == 0
    source.write_text(kept.replace("\n\n\n", "\n\n\n\n", 1))
    script.write_text(kept_script + "cat $planted\n")
    ended = hooks()
    script.write_text(kept_script)
    assert ended.returncode == 1
    assert "files were modified by this hook" in ended.stdout
    assert "SC2086" in ended.stdout
    assert source.read_text() == kept


def test_every_hook_is_a_tool_of_the_project() -> None:
    repositories = yaml.safe_load((ROOT / ".pre-commit-config.yaml").read_text())["repos"]
    assert [repository["repo"] for repository in repositories] == ["local"]
    for hook in repositories[0]["hooks"]:
        assert hook["language"] == "system"
        assert os.access(ROOT / hook["entry"].split()[0], os.X_OK), hook["entry"]

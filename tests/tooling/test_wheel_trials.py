"""What `make test-wheels` prints, counts as a failure and leaves behind; no system is created here."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest

from tests.process import runs
from tools.chroots import facts
from tools.wheels import login, report, targets, trial

from .project import ROOT, run
from .test_systems import APART, cells, namespaces

pytestmark = pytest.mark.process

WHEEL = Path("tessaline-0.1.0-cp399-cp399-manylinux_2_28_aarch64.whl")
PASSED = "===== 240 passed in 31.20s =====\n"
FAILED = "===== 3 failed, 237 passed in 31.20s =====\n"
# In a root that has a folder of the machine mounted.
STEPS = """
echo after >"$1/srv/kept"
echo new >"$1/srv/new"
cat "$1/srv/kept" "$1$2/file"
! echo >"$1$2/new"
"""


def result(**different: Any) -> dict[str, Any]:
    return {
        "system": "debian-99",
        "called": "Debian 99",
        "machine": "aarch64",
        "wheel": WHEEL.name,
        "python": "3.99.1",
        "libc": "glibc 2.99",
        "date": "2026-01-02",
        "steps": {name: {"outcome": "ok", "seconds": 20} for name in ("install", "login", "ends")},
        "tests": facts.counts(PASSED),
        "runs": 1234,
        **different,
    }


def test_a_row_says_what_was_tried_where() -> None:
    (row,) = cells(report.WHEELS.text([result()]))
    assert row[:5] == ["Debian 99, aarch64", "glibc 2.99", "3.99.1", "ok", "ok"]
    assert row[5:] == ["240", "1,234", "60", "2026-01-02"]
    (row,) = cells(report.WHEELS.text([result(sample=True)]))
    assert row[5] == "240 (a sample)"


def test_a_row_does_not_hide_what_failed() -> None:
    taken = {"install": {"outcome": "ok", "seconds": 1}, "login": {"outcome": "failed", "seconds": 1}}
    early = result(steps=taken)
    for name in ("python", "libc", "tests", "runs"):
        del early[name]
    (row,) = cells(report.WHEELS.text([early]))
    assert row[1:7] == ["", "3.99", "ok", "failed", "not run", ""]
    taken = {**result()["steps"], "ends": {"outcome": "failed", "seconds": 1}}
    (row,) = cells(report.WHEELS.text([result(steps=taken, tests=facts.counts(FAILED))]))
    assert row[5] == "237, **3 failed**"
    (row,) = cells(report.WHEELS.text([result(steps=taken, tests={})]))
    assert row[5] == "**failed**"


def test_the_page_shows_the_results_that_are_kept() -> None:
    page = (ROOT / "docs/where-it-runs.md").read_text()
    kept = json.loads((ROOT / "docs/wheels.json").read_text())
    assert kept
    assert report.WHEELS.put_into(page, report.WHEELS.text(kept)) == page


def test_a_trial_stops_at_the_first_step_that_fails(capsys: pytest.CaptureFixture[str]) -> None:
    def fail() -> None:
        raise trial.Failed("for this reason\n")

    def take_too_long() -> None:
        raise subprocess.TimeoutExpired("python", 7)

    def never() -> None:
        raise AssertionError("went on")

    steps = {"install": lambda: None, "login": fail, "ends": never}
    told = trial.take(steps)
    assert {name: step["outcome"] for name, step in told.items()} == {"install": "ok", "login": "failed"}
    assert "for this reason" in capsys.readouterr().out
    assert trial.take({"login": take_too_long})["login"]["outcome"] == "late"


@pytest.mark.parametrize("target", targets.TARGETS, ids=str)
def test_a_wheel_names_its_machine_and_python(target: targets.Target) -> None:
    name = f"tessaline-0.1.0-{target}.whl"
    assert trial.machine_of(Path(name)) == target.platform.machine
    assert report.tag({"wheel": name}) == tuple(map(int, target.python.split(".")))


@pytest.mark.parametrize(
    ("system", "platform"),
    [
        ("debian-12", "manylinux_2_28_x86_64"),
        ("debian-13-aarch64", "manylinux_2_28_aarch64"),
        ("debian-12-musl", "musllinux_1_2_x86_64"),
    ],
)
def test_a_system_is_given_the_wheel_for_its_c_library_and_machine(
    system: str, platform: str, tmp_path: Path
) -> None:
    (tmp_path / "dist").mkdir()
    for target in targets.TARGETS:
        (tmp_path / f"dist/tessaline-0.1.0-{target}.whl").touch()
    steps = f'source {ROOT}/tools/chroots/list.sh; cd "$1"; describe "$2"; wheel_for 3.14'
    told = run("bash", "-ec", steps, "sh", str(tmp_path), system)
    assert told.stdout == f"dist/tessaline-0.1.0-cp314-cp314-{platform}.whl\n"


def test_a_python_that_is_built_has_a_suite_for_its_sources() -> None:
    steps = """
        source tools/chroots/list.sh
        source tools/chroots/cpython.sh
        for name in "${wheel_systems[@]}"; do
          describe "$name"
          for python in "${own_pythons[@]}"; do
            [[ $python != /* ]] || echo "$name ${python##*/} ${source_suites[${python##*/}]}"
          done
        done"""
    built = run("bash", "-euc", steps).stdout.splitlines()
    assert "debian-11 python3.13 trixie" in built
    assert [line.split()[1] for line in built if line.startswith("debian-12-musl ")] == [
        f"python{python}" for python in targets.PYTHONS
    ]


def test_a_program_of_a_user_lives_well_but_not_without_a_wheel() -> None:
    """The installed build has no bundled libraries; every step before that succeeded."""
    with pytest.raises(login.LoginError) as failure:
        login.log_in([sys.executable], login.by_environment)
    assert str(failure.value) == f"bundled libraries: False; logins: {login.LOGINS}"


def test_a_login_that_nobody_trusts_is_a_failure() -> None:
    with pytest.raises(login.LoginError, match="SSLCertVerificationError"):
        login.log_in([sys.executable], lambda _: {})


def test_programs_that_end_are_run_by_the_python_that_is_named(tmp_path: Path) -> None:
    program = "from tests.process import runs; print(runs.PYTHON)"
    elsewhere = str(tmp_path / "python")
    told = run(sys.executable, "-c", program, environment={"TESSALINE_EXIT_PYTHON": elsewhere})
    assert (told.stdout, runs.PYTHON) == (f"{elsewhere}\n", sys.executable)


@pytest.mark.parametrize(
    ("names", "said"),
    [
        (["debian-11", "debian-99"], "no system is called debian-99; there are: debian-11 debian-12"),
        (["debian-11", "11"], "no system is called 11; there are: debian-11 debian-12"),
    ],
)
def test_a_system_that_is_not_known_is_answered_with_those_that_are(names: list[str], said: str) -> None:
    ended = run("tools/test-wheels", *names)
    assert (ended.returncode, ended.stdout) == (1, "")
    assert ended.stderr.startswith(f"setup: {said}")


def test_what_is_written_in_a_system_is_gone_afterwards(tmp_path: Path) -> None:
    prefix = namespaces()
    root, shown = tmp_path / "root", tmp_path / "shown"
    for folder in (shown, *(root / name for name in ("dev", "proc", "mnt", "srv"))):
        folder.mkdir(parents=True)
    (root / "srv/kept").write_text("before")
    (shown / "file").write_text("shown")
    script = APART + 'machine=$(uname -m); apart tools/chroots/layer "$1" "$2" -- sh -ec "$3" sh "$1" "$2"'
    ended = run(*prefix, "bash", "-c", script, "sh", str(root), str(shown), STEPS)
    if "overlay" in ended.stderr:
        pytest.skip("this kernel has no overlays for this user")
    assert (ended.returncode, ended.stdout) == (0, "after\nshown"), ended.stderr
    assert (root / "srv/kept").read_text() == "before"
    assert [path.name for path in (root / "srv").iterdir()] == ["kept"]
    assert not list(shown.glob("new")) and not list((root / "mnt").iterdir())

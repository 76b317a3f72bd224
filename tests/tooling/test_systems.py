"""What `make systems` prints, writes and leaves behind; no system is created here."""

import json
import os
import select
import shutil
import signal
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest

from tools.chroots import facts, report

from .project import ROOT, run

pytestmark = pytest.mark.process

DEADLINE = 20
APART = "source tools/lib/common.sh; source tools/chroots/list.sh; source tools/chroots/namespaces.sh; "
# In a separate session, as a server of a test would be, and with a mount.
PROGRAM = "mount -t tmpfs tmpfs /mnt; echo mounted >/mnt/file; setsid sleep 600 & cat /mnt/file; wait"

PASSED = (
    "100% tests passed, 0 tests failed out of 240\n===== 5177 passed, 5 skipped in 301.20s (0:05:01) =====\n"
)
FAILED = (
    "99% tests passed, 2 tests failed out of 240\n"
    "===== 3 failed, 5170 passed, 5 skipped, 1 error in 301.20s (0:05:01) =====\n"
)


def result(**different: Any) -> dict[str, Any]:
    return {
        "system": "debian-99",
        "called": "Debian 99",
        "machine": "riscv64",
        "python": "3.13.5",
        "libcurl": "8.1.2",
        "openssl": "3.0.1",
        "compiler": "g++ 99.1.0",
        "glibc": "2.99",
        "date": "2026-01-02",
        "sample": [],
        "steps": {name: {"outcome": "ok", "seconds": 60} for name in ("build", "demo", "test")},
        "tests": facts.counts(PASSED),
        **different,
    }


def cells(table: str) -> list[list[str]]:
    return [[cell.strip() for cell in line.strip("|").split("|")] for line in table.splitlines()[2:]]


def test_a_system_without_a_python_of_its_own_is_brought_one_of_this_machine() -> None:
    steps = "source tools/lib/common.sh; source tools/lib/python.sh; source tools/chroots/list.sh; "
    ended = run("bash", "-c", steps + "describe debian-12; echo ${#own_pythons[@]}; find_python")
    assert (ended.returncode, ended.stderr) == (0, "")
    count, python = ended.stdout.split()
    assert count == "0"
    assert os.access(python, os.X_OK)


def test_a_system_that_is_not_known_is_answered_with_those_that_are() -> None:
    ended = run("tools/systems", "debian-13", "debian-99")
    assert (ended.returncode, ended.stdout) == (1, "")
    assert ended.stderr == (
        "setup: no system is called debian-99; there are: debian-12 debian-13 debian-sid debian-13-aarch64\n"
    )


def test_a_row_says_what_ran_where() -> None:
    (row,) = cells(report.SYSTEMS.text([result()]))
    assert row[:5] == ["Debian 99, riscv64", "3.13.5", "8.1.2", "3.0.1", "g++ 99.1.0"]
    assert row[5:] == ["ok", "5,417, 5 skipped", "3", "2026-01-02"]


@pytest.mark.parametrize(
    ("log", "outcome", "sample", "said"),
    [
        (FAILED, "failed", [], "5,408, 5 skipped, **6 failed**"),
        ("stopped in the middle", "late", [], "**late**"),
        (PASSED, "failed", [], "**failed**"),
        (PASSED, "ok", ["tests/process"], "5,417, 5 skipped (a sample)"),
    ],
)
def test_a_row_does_not_hide_what_failed(log: str, outcome: str, sample: list[str], said: str) -> None:
    steps = {"build": {"outcome": "ok", "seconds": 1}, "test": {"outcome": outcome, "seconds": 1}}
    (row,) = cells(report.SYSTEMS.text([result(steps=steps, tests=facts.counts(log), sample=sample)]))
    assert row[5:7] == ["not run", said]


def test_a_new_result_takes_the_place_of_the_old_one_of_that_system_and_python(tmp_path: Path) -> None:
    before = [result(date="2025-01-01"), result(python="3.14.2", date="2025-01-02")]
    (tmp_path / "systems.json").write_text(json.dumps(before))
    (tmp_path / "where-it-runs.md").write_text(f"above\n{report.SYSTEMS.begin}{report.SYSTEMS.end}below\n")
    (tmp_path / "new.json").write_text(json.dumps(result(python="3.13.6")))
    told = run(sys.executable, "tools/chroots/report.py", str(tmp_path), str(tmp_path / "new.json"))
    assert (told.returncode, told.stderr) == (0, "")
    assert [(row[1], row[-1]) for row in cells(told.stdout)] == [
        ("3.13.6", "2026-01-02"),
        ("3.14.2", "2025-01-02"),
    ]
    page = (tmp_path / "where-it-runs.md").read_text()
    assert page == f"above\n{report.SYSTEMS.begin}\n{told.stdout}\n{report.SYSTEMS.end}below\n"


def test_the_page_shows_the_results_that_are_kept() -> None:
    page = (ROOT / "docs/where-it-runs.md").read_text()
    kept = json.loads((ROOT / "docs/systems.json").read_text())
    assert report.SYSTEMS.put_into(page, report.SYSTEMS.text(kept)) == page


def namespaces() -> list[str]:
    """Gives a shell the right to namespaces; skips if that is not possible."""
    prefix = [] if os.geteuid() == 0 else ["unshare", "--user", "--map-root-user"]
    probe = [*prefix, "unshare", "--mount", "--pid", "--fork", "--mount-proc", "true"]
    missing = [name for name in ("unshare", "setpriv", "pivot_root") if not shutil.which(name)]
    if missing or subprocess.run(probe, capture_output=True, timeout=DEADLINE).returncode:
        pytest.skip(f"no {missing}" if missing else "this user may not have namespaces")
    return prefix


def test_what_runs_apart_gives_its_status() -> None:
    prefix = namespaces()
    script = APART + "machine=$(uname -m); apart bash -c 'exit 3' || exit $?"
    assert run(*prefix, "bash", "-c", script).returncode == 3


@pytest.mark.parametrize(
    "number", [signal.SIGINT, signal.SIGTERM, signal.SIGKILL], ids=lambda number: signal.Signals(number).name
)
def test_nothing_stays_after_a_signal(number: signal.Signals) -> None:
    prefix = namespaces()
    script = APART + f"machine=$(uname -m); end_with_signals; apart bash -c '{PROGRAM}'"
    # Every process in there has the pipe's end open, so it closes when all have ended.
    process = subprocess.Popen(
        [*prefix, "bash", "-c", script], cwd=ROOT, stdout=subprocess.PIPE, stdin=subprocess.DEVNULL
    )
    with process:
        assert process.stdout
        assert select.select([process.stdout], [], [], DEADLINE)[0]
        assert process.stdout.readline() == b"mounted\n"
        process.send_signal(number)
        assert select.select([process.stdout], [], [], DEADLINE)[0], "something still runs"
        assert process.stdout.read() == b""
    assert process.returncode == {signal.SIGINT: 130, signal.SIGTERM: 143}.get(number, -number)


def test_a_system_is_told_how_to_reach_the_network_and_nothing_else_of_the_environment(
    tmp_path: Path,
) -> None:
    prefix = namespaces()
    for name in ("dev", "proc"):
        (tmp_path / name).mkdir()
    for name in ("bin", "lib", "lib64"):
        (tmp_path / name).symlink_to(f"usr/{name}")
    script = APART + f"machine=$(uname -m); apart tools/chroots/within {tmp_path} /usr -- env"
    told = {"PIP_TIMEOUT": "7", "https_proxy": "http://127.0.0.1:9"}
    ended = run(
        *prefix, "bash", "-c", script, environment=told | {"OF_THIS_MACHINE": "1", "PYTHON": "python3"}
    )
    names = {line.partition("=")[0] for line in ended.stdout.splitlines()}
    assert ended.returncode == 0
    assert {"PATH", "HOME", "LC_ALL", *told} <= names
    kept = {name for name in os.environ if name.startswith("PIP_") or name.lower().endswith("_proxy")}
    assert names <= {"PATH", "HOME", "LC_ALL", "PWD", "SHLVL", "OLDPWD", "_", *told, *kept}

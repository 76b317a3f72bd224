"""Celery's worker with a pool of processes, over a broker in a folder: each has a keeper, all one era."""

from __future__ import annotations

import os
import signal
from pathlib import Path

import pytest

from devserver.testing import DevServer
from tests.examples.programs import ROOT, ended, program
from tests.sanitized import SANITIZER
from tests.shared.threads import until

pytestmark = pytest.mark.skipif(SANITIZER is not None, reason="its start takes longer than Celery waits for")

PROCESSES = 2
CONFIGURATION = """
from pathlib import Path

folder = Path(__file__).parent
broker_url = "filesystem://"
broker_transport_options = {
    "data_folder_in": folder / "tasks",
    "data_folder_out": folder / "tasks",
    "control_folder": folder / "control",
    "polling_interval": 0.02,
}
result_backend = f"file://{folder / 'results'}"
"""
SENDER = """
import os, sys
from examples.celery_app import era, keepers, rename

def results(tasks):
    return [task.get(timeout=30, interval=0.02) for task in tasks]

if "era" in sys.argv:
    print(results([era.delay(2)]), end=" ")
print(results([rename.delay(f"Ada {number}") for number in range(6)]), keepers)
"""
QUIETLY = ("--without-gossip", "--without-mingle", "--without-heartbeat", "--loglevel=WARNING")
WORKER = ("-m", "celery", "--app", "examples.celery_app", "worker", f"--concurrency={PROCESSES}", *QUIETLY)


@pytest.fixture
def search_path(tmp_path: Path) -> str:
    """With a configuration for a broker and for results in folders."""
    (tmp_path / "celeryconfig.py").write_text(CONFIGURATION)
    for name in ("tasks", "control", "results"):
        (tmp_path / name).mkdir()
    return os.pathsep.join([str(tmp_path), str(ROOT), *filter(None, [os.environ.get("PYTHONPATH")])])


def test_every_process_has_a_keeper_and_all_meet_an_era(server: DevServer, search_path: str) -> None:
    variables = {"SERVICE_URL": server.url, "PYTHONPATH": search_path}
    with program(*WORKER, **variables) as worker:
        # The programs that send tasks have no keeper, and need no key.
        with program("-c", SENDER, **variables | {"WALLET_KEY": ""}) as sender:
            assert ended(sender) == (0, f"{[200] * 6} []\n", "")
        server.wait_for("verify", PROCESSES)
        server.settings(era=2)
        with program("-c", SENDER, "era", **variables | {"WALLET_KEY": ""}) as sender:
            assert ended(sender) == (0, f"[None] {[200] * 6} []\n", "")
        # A warm shutdown would take seconds until it checks for signals again.
        children = Path(f"/proc/{worker.pid}/task/{worker.pid}/children").read_text().split()
        worker.send_signal(signal.SIGKILL)
        ended(worker)
    until(lambda: not any(Path(f"/proc/{child}").exists() for child in children), "the end of the pool")
    assert len(children) == PROCESSES
    assert server.state()["counts"]["verify"] == 2 * PROCESSES
    renamed = [entry for entry in server.requests if entry["endpoint"] == "display_name"]
    assert [entry["status"] for entry in renamed] == [200] * 12


ONE_PROCESS = """
from celery.signals import worker_process_init, worker_process_shutdown
from examples.celery_app import keepers, rename

worker_process_init.send(None)
(keeper,) = keepers
print(rename("Ada"), keeper.status().state)
worker_process_shutdown.send(None)
print(keeper.status().state, keepers)
"""


def test_a_process_closes_its_keeper_at_its_end(server: DevServer, search_path: str) -> None:
    with program("-c", ONE_PROCESS, SERVICE_URL=server.url, PYTHONPATH=search_path) as process:
        assert ended(process) == (0, "200 good\nclosed []\n", "")

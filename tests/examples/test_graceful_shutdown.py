"""A program that gets a signal to end: what it finishes, what it does not wait for, and its exit status."""

from __future__ import annotations

import signal
import textwrap

import pytest

from devserver.testing import DevServer
from examples.graceful_shutdown import __file__ as PROGRAM
from tests.examples.programs import ended, line_of, program

PRELUDE = """
import os, sys
from examples.graceful_shutdown import run_until_stopped
from tessaline.auth import AuthError, AuthManager
from tessaline.keeper import Keeper

manager = AuthManager(os.environ.pop("WALLET_KEY"), sys.argv[1])

def run(work, **options):
    keeper = Keeper(manager)
    status = run_until_stopped(keeper, work, **options)
    try:
        keeper.get_token()
    except AuthError as error:
        print(error.reason, flush=True)
    sys.exit(status)
"""


def written(text: str) -> str:
    return PRELUDE + textwrap.dedent(text)


NAMES_ITSELF = written("""
    import threading
    def tell(stopping):
        stopping.wait()
        print("asked to stop", flush=True)
    def work(keeper, stopping):
        threading.Thread(target=tell, args=[stopping], daemon=True).start()
        while not stopping.is_set():
            print(manager.set_display_name("Ada")["display_name"], flush=True)
    run(work)
""")

WAITS_FOR_A_TOKEN = written("""
    from examples import graceful_shutdown
    def work(keeper, stopping):
        keeper.notify_era_change(2)
        try:
            keeper.get_token(timeout=None)
        except AuthError as error:
            # In one write, because other threads print too.
            os.write(1, f"woken {error.reason}\\n".encode())
    graceful_shutdown.FAREWELL_SECONDS = 20
    run(work, threads=3, patience=0.1)
""")

FAILS = written("""
    def work(keeper, stopping):
        if not failing.is_set():
            failing.set()
            raise ValueError("a defect")
        stopping.wait()
    import threading
    failing = threading.Event()
    run(work, threads=2)
""")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_work_in_hand_is_finished(server: DevServer, number: signal.Signals) -> None:
    server.faults("display_name", [{"kind": "pass"}, {"kind": "hold"}])
    with program("-c", NAMES_ITSELF, server.url) as process:
        assert line_of(process) == "Ada"
        server.wait_for("display_name", 2)
        process.send_signal(number)
        # Both signals may arrive; the second has no effect.
        process.send_signal(signal.SIGTERM)
        assert line_of(process) == "asked to stop"
        server.release()
        assert ended(process) == (0, "Ada\nmanager_closed\n", "")
    assert [entry["status"] for entry in server.requests if entry["endpoint"] == "display_name"] == [200] * 2


def test_who_waits_for_a_token_longer_than_the_patience_is_woken(server: DevServer) -> None:
    server.faults("challenge", [{"kind": "pass"}, {"kind": "hold"}])
    with program("-c", WAITS_FOR_A_TOKEN, server.url) as process:
        server.wait_for("challenge", 2)
        process.send_signal(signal.SIGTERM)
        status, output, complaints = ended(process)
    assert (status, complaints) == (0, "")
    assert output.splitlines() == [*["woken manager_closed"] * 3, "manager_closed"]


def test_a_login_under_way_does_not_keep_the_program(server: DevServer) -> None:
    server.faults("challenge", [{"kind": "status", "status": 503, "times": None}])
    with program("-c", NAMES_ITSELF.replace("run(work)", "run(work, patience=0.1)"), server.url) as process:
        server.wait_for("challenge", 1)
        process.send_signal(signal.SIGTERM)
        assert ended(process) == (0, "manager_closed\n", "")


def test_a_thread_that_fails_ends_the_program_with_a_status(server: DevServer) -> None:
    with program("-c", FAILS, server.url) as process:
        status, output, complaints = ended(process)
    assert (status, output) == (1, "manager_closed\n")
    assert complaints.rstrip().endswith("ValueError: a defect")


def test_a_login_that_fails_ends_it_too(server: DevServer) -> None:
    server.faults("register", [{"kind": "status", "status": 403}])
    with program("-c", NAMES_ITSELF, server.url) as process:
        status, output, complaints = ended(process)
    assert (status, output) == (1, "manager_closed\n")
    assert "\ntessaline.auth.AuthError: unauthorized\n" in complaints


def test_the_example_as_a_program(server: DevServer) -> None:
    with program(str(PROGRAM), server.url) as process:
        assert line_of(process).endswith("has logged in")
        process.send_signal(signal.SIGTERM)
        assert ended(process) == (0, "", "")

"""Many threads that ask for a login at once: one flow on the wire, one outcome for all."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

from devserver.testing import DevServer
from tessaline import auth
from tests.shared.threads import Worker, until, waiters

from .support import Harness, descriptors, reason_of, wire

Make = Callable[..., Harness]

THREADS = 64


def all_at_once(one: Harness, server: DevServer, at: str, fault: dict[str, Any]) -> list[Worker]:
    """Calls of `authenticate` of which one is at `at`, held there until all others wait for it; ended."""
    already = server.state()["counts"][at]
    server.faults(at, [{**fault, "hold": True}])
    workers = [Worker(one.manager.authenticate) for _ in range(THREADS)]
    server.wait_for(at, already + 1)
    event = one.manager._auth_event
    until(lambda: waiters(event) == THREADS - 1, "all but one wait")
    server.release()
    return [worker.finish() for worker in workers]


@pytest.mark.parametrize("at", ["register", "challenge", "verify"])
def test_success(at: str, either: DevServer, harness: Make) -> None:
    one = harness(either)
    for worker in all_at_once(one, either, at, {"kind": "pass"}):
        assert worker.result() is None
    assert wire(either) == {"register": 1, "challenge": 1, "verify": 1}
    assert one.manager._state == "AUTHENTICATED"
    assert one.manager._refresh_thread.is_alive()


@pytest.mark.parametrize(
    ("at", "fault", "reason"),
    [
        ("register", {"kind": "status", "status": 403}, "unauthorized"),
        ("challenge", {"kind": "status", "status": 400}, "invalid_request"),
        ("verify", {"kind": "status", "status": 401}, "signature_mismatch"),
        ("verify", {"kind": "wrong_subject"}, "wallet_mismatch"),
    ],
)
def test_refusal(at: str, fault: dict[str, Any], reason: str, either: DevServer, harness: Make) -> None:
    one = harness(either)
    errors = [one.discreet(worker.failure()) for worker in all_at_once(one, either, at, fault)]
    assert {reason_of(error) for error in errors} == {reason}
    assert {id(error) for error in errors} == {id(one.manager._auth_error)}
    assert max(wire(either).values()) == 1
    assert one.manager._state == "UNINITIALIZED"
    one.manager.authenticate()


def test_a_failure_that_is_no_refusal(server: DevServer, harness: Make) -> None:
    one = harness(server)
    fault = {"kind": "missing_key", "key": "token"}
    errors = [one.discreet(worker.failure()) for worker in all_at_once(one, server, "verify", fault)]
    (own,) = (error for error in errors if type(error) is KeyError)
    others = [error for error in errors if error is not own]
    assert len(others) == THREADS - 1
    assert {reason_of(error) for error in others} == {str(own)} == {"'token'"}
    assert wire(server) == {"register": 1, "challenge": 1, "verify": 1}


def test_a_failed_renewal_leaves_everybody_the_older_token(server: DevServer, harness: Make) -> None:
    one = harness(server)
    one.manager.authenticate()
    token = one.manager.get_token()
    fault = {"kind": "status", "status": 401}
    for worker in all_at_once(one, server, "verify", fault):
        assert reason_of(one.discreet(worker.failure())) == "signature_mismatch"
    readers = [Worker(one.manager.get_token) for _ in range(THREADS)]
    assert {reader.result() for reader in readers} == {token}


def test_tokens_are_waited_for_as_well(server: DevServer, harness: Make) -> None:
    one = harness(server)
    server.faults("verify", [{"kind": "hold"}])
    runner = Worker(one.manager.authenticate)
    server.wait_for("verify", 1)
    readers = [Worker(one.manager.get_token) for _ in range(THREADS)]
    event = one.manager._auth_event
    until(lambda: waiters(event) == THREADS)
    server.release()
    runner.result()
    assert {reader.result() for reader in readers} == {one.manager._token}
    assert wire(server)["verify"] == 1


def test_managers_do_not_get_in_each_others_way(server: DevServer, harness: Make) -> None:
    several = [harness(server) for _ in range(8)]
    for worker in [Worker(one.manager.authenticate) for one in several for _ in range(4)]:
        worker.result()
    assert len({one.manager._token for one in several}) == len(several)
    subjects = {auth._decode_jwt_payload_unverified(one.manager._token)["sub"].lower() for one in several}
    assert subjects == {one.manager.get_wallet_address() for one in several}


def test_nothing_is_left_open(server: DevServer, harness: Make) -> None:
    def round_trip() -> None:
        one = harness(server)
        for worker in all_at_once(one, server, "register", {"kind": "pass"}):
            worker.result()
        one.manager.close()

    round_trip()
    files = descriptors()
    for _ in range(3):
        round_trip()
    assert descriptors() <= files

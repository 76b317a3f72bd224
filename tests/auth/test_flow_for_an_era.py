"""The flow that requires an announced era."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

from tessaline import auth

from .helpers.managers import ADDRESS, reason_of
from .helpers.server import CHALLENGE, REGISTER, VERIFY, FakeServer
from .helpers.tokens import issued, with_payload

FULL_LOGIN = [REGISTER, CHALLENGE, VERIFY]


class Flows:
    """Replaces the flow of one manager by prepared results, one per run."""

    def __init__(self, manager: Any, *eras: Any) -> None:
        self.manager = manager
        self.results: list[Any] = [
            era if isinstance(era, BaseException | tuple) else (issued(ADDRESS, era), number, b"s")
            for number, era in enumerate(eras)
        ]
        self.runs = 0
        self.during: Callable[[int], None] | None = None
        manager._do_auth_flow = self

    def __call__(self) -> Any:
        self.runs += 1
        if self.during is not None:
            self.during(self.runs)
        result = self.results[self.runs - 1]
        if isinstance(result, BaseException):
            raise result
        return result


def test_without_a_pending_era_one_flow_is_enough(manager: Any) -> None:
    flows = Flows(manager, 1)
    assert manager._do_auth_flow_matching_pending_era() == flows.results[0]
    assert flows.runs == 1


@pytest.mark.parametrize("era", [7, 8, 10**30, "7", 7.9])
def test_a_token_of_the_pending_era_or_a_later_one_is_returned(manager: Any, era: Any) -> None:
    flows = Flows(manager, era)
    manager._pending_era_number = 7
    assert manager._do_auth_flow_matching_pending_era() == flows.results[0]
    assert flows.runs == 1


def test_pending_era_7_with_tokens_of_eras_6_then_7_returns_the_second_triple(manager: Any) -> None:
    flows = Flows(manager, 6, 7)
    manager._pending_era_number = 7
    assert manager._do_auth_flow_matching_pending_era() == flows.results[1]
    assert flows.runs == 2


@pytest.mark.parametrize("eras", [(6, 6), (None, None), (None, 6), (0, -1)])
def test_pending_era_7_with_two_older_tokens_is_an_era_mismatch_after_two_flows(
    manager: Any, eras: tuple[Any, Any]
) -> None:
    flows = Flows(manager, *eras)
    manager._pending_era_number = 7
    with pytest.raises(auth.AuthError) as caught:
        manager._do_auth_flow_matching_pending_era()
    assert reason_of(caught.value) == "era_mismatch"
    assert flows.runs == 2


def test_two_full_flows_are_on_the_wire_before_an_era_mismatch(manager: Any, server: FakeServer) -> None:
    server.era = 6
    manager._pending_era_number = 7
    with pytest.raises(auth.AuthError) as caught:
        manager._do_auth_flow_matching_pending_era()
    assert reason_of(caught.value) == "era_mismatch"
    assert server.paths == FULL_LOGIN * 2
    assert manager._pending_era_number == 7


def test_an_era_announced_during_the_flow_counts(manager: Any) -> None:
    flows = Flows(manager, 4, 5)
    flows.during = lambda run: setattr(manager, "_pending_era_number", 5)
    assert manager._do_auth_flow_matching_pending_era() == flows.results[1]


def test_an_era_raised_during_the_second_flow_counts(manager: Any) -> None:
    flows = Flows(manager, 4, 5)
    flows.during = lambda run: setattr(manager, "_pending_era_number", 4 + run)
    with pytest.raises(auth.AuthError) as caught:
        manager._do_auth_flow_matching_pending_era()
    assert reason_of(caught.value) == "era_mismatch"


def test_an_era_withdrawn_during_the_flow_no_longer_counts(manager: Any) -> None:
    flows = Flows(manager, 4)
    manager._pending_era_number = 9
    flows.during = lambda run: setattr(manager, "_pending_era_number", None)
    assert manager._do_auth_flow_matching_pending_era() == flows.results[0]


@pytest.mark.parametrize(
    ("token", "reason"),
    [(with_payload({"era_number": "abc"}), "era_mismatch"), ("no token", "wallet_mismatch")],
)
def test_an_unreadable_era_ends_it_after_one_flow(manager: Any, token: str, reason: str) -> None:
    flows = Flows(manager, (token, 0, b""))
    manager._pending_era_number = 7
    with pytest.raises(auth.AuthError) as caught:
        manager._do_auth_flow_matching_pending_era()
    assert reason_of(caught.value) == reason
    assert flows.runs == 1


@pytest.mark.parametrize(
    "error", [auth.NetworkError("gone"), KeyError("token"), KeyboardInterrupt()], ids=repr
)
@pytest.mark.parametrize("run", [1, 2])
def test_an_error_of_either_flow_passes_as_the_same_object(
    manager: Any, error: BaseException, run: int
) -> None:
    flows = Flows(manager, *([6] * (run - 1)), error)
    manager._pending_era_number = 7
    with pytest.raises(type(error)) as caught:
        manager._do_auth_flow_matching_pending_era()
    assert caught.value is error
    assert flows.runs == run


def test_the_subject_is_not_checked_by_the_flow(manager: Any) -> None:
    stranger = (issued("0x" + "9" * 40, 7), 0, b"")
    Flows(manager, stranger)
    manager._pending_era_number = 7
    assert manager._do_auth_flow_matching_pending_era() == stranger


def test_the_lock_is_free_during_the_flow_and_after_it(manager: Any) -> None:
    flows = Flows(manager, 6, 6)
    locked: list[bool] = []
    flows.during = lambda run: locked.append(manager._lock.locked())
    manager._pending_era_number = 7
    with pytest.raises(auth.AuthError):
        manager._do_auth_flow_matching_pending_era()
    assert locked == [False, False]
    assert not manager._lock.locked()


def test_a_subclass_may_replace_the_flow(make_manager: Callable[..., Any]) -> None:
    class Own(auth.AuthManager):
        def _do_auth_flow(self) -> Any:
            return "own", 1, b"x"

    assert make_manager(cls=Own)._do_auth_flow_matching_pending_era() == ("own", 1, b"x")

"""A small part of `make chaos`, and that it sees what it is there to see."""

from __future__ import annotations

import contextlib
import itertools
import re
import sys
from collections.abc import Callable, Iterator
from dataclasses import replace
from typing import Any

import pytest

from chaos import run_flows, run_lives
from chaos.catalogue import FAULTS, PHASES
from chaos.contract import GOOD, LOGIN, Answer, Fault, Manager, Refused, Service
from chaos.life import Broken, Simulated
from chaos.scenario import KINDS, Scenario, draw, product_size
from chaos.stage import Stage
from chaos.watchdog import HUNG, Watchdog
from tessaline import auth

from . import project

SEED = 20


@pytest.fixture(scope="module")
def watchdog() -> Iterator[Watchdog]:
    dog = Watchdog(60)
    yield dog
    dog.rest()


@pytest.fixture(scope="module")
def stage() -> Iterator[Stage]:
    with Stage() as stage:
        yield stage


def by_name(name: str) -> Fault:
    (fault,) = (fault for fault in FAULTS if fault.name == name)
    return fault


def small_choice() -> list[Scenario]:
    """One flow for each kind and phase where there is one, stalls left out, and some drawn at random."""
    wanted: set[tuple[str, str]] = set(itertools.product(KINDS, PHASES))
    chosen = []
    for number in range(product_size()):
        scenario = draw(SEED, number)
        (faults,) = scenario.plan.values()
        if (scenario.kind, faults[0].phase) in wanted and not faults[0].stalls:
            wanted.remove((scenario.kind, faults[0].phase))
            chosen.append(scenario)
    at_random = (draw(SEED, product_size() + number) for number in itertools.count())
    quick = (
        scenario
        for scenario in at_random
        if not any(fault.stalls for faults in scenario.plan.values() for fault in faults)
    )
    return chosen + list(itertools.islice(quick, 25))


def test_flows_go_as_foretold(stage: Stage, watchdog: Watchdog) -> None:
    scenarios = small_choice()
    figures = run_flows.run(scenarios, stage, watchdog)
    assert (figures.flows, figures.violations) == (len(scenarios), 0)


def test_lives_go_as_they_must(watchdog: Watchdog) -> None:
    figures = run_lives.run([f"{SEED}:{number}" for number in range(20)], 40, watchdog)
    assert (figures.days, figures.violations) == (800, 0)
    assert figures.faults > 50
    assert figures.stores > 800


def test_the_same_number_draws_the_same_flow() -> None:
    assert [draw(3, number) for number in range(50)] == [draw(3, number) for number in range(50)]
    assert draw(3, 0) != draw(4, 0)


def test_names_are_unique_and_every_phase_has_faults() -> None:
    names = [fault.name for fault in FAULTS]
    assert len(names) == len(set(names))
    assert {fault.phase for fault in FAULTS} == set(PHASES)


# What the model foretells, against figures worked out by hand.


def foretold(plan: dict[str, list[str]]) -> tuple[Manager, Refused | None]:
    manager = Manager(Service(era=5), 1000.0)
    manager.plan({endpoint: [by_name(name) for name in names] for endpoint, names in plan.items()})
    return manager, manager.log_in()


def test_the_model_of_a_login_without_faults() -> None:
    manager, failure = foretold({})
    assert failure is None
    assert manager.record.attempts == dict.fromkeys(LOGIN, 1)
    assert (manager.state, manager.expiry, manager.record.delays) == ("AUTHENTICATED", 87400.0, [])


@pytest.mark.parametrize(
    ("plan", "attempts", "delays", "error"),
    [
        ({"register": ["refused"] * 3}, (3, 0, 0), [1, 2], "Server unreachable after 3 attempts"),
        ({"challenge": ["limited_7", "status_500"]}, (1, 3, 1), [7, 1], None),
        ({"challenge": ["status_500", "limited"]}, (1, 3, 1), [1, 2], None),
        ({"verify": ["stale_410"] * 3}, (1, 3, 3), [], "stale authentication challenge after 3 attempts"),
        ({"verify": ["body_cut"]}, (1, 2, 3), [1], None),
        ({"verify": ["status_401"]}, (1, 1, 1), [], "signature_mismatch"),
        ({"register": ["status_400"]}, (1, 0, 0), [], "invalid_address"),
        ({"register": ["empty"]}, (1, 1, 0), [], "unauthorized"),
    ],
)
def test_the_model_of_a_login_with_faults(
    plan: dict[str, list[str]], attempts: tuple[int, int, int], delays: list[int], error: str | None
) -> None:
    manager, failure = foretold(plan)
    assert tuple(manager.record.attempts[endpoint] for endpoint in LOGIN) == attempts
    assert manager.record.delays == delays
    assert (failure and failure.text) == error


# It sees what is wrong.


def one_flow(**changes: Any) -> Scenario:
    plan = {"challenge": (by_name("status_503"),)}
    return replace(draw(SEED, 0), kind="first login", scheme="http", plan=plan, overtaken=False, **changes)


def broken_flow(stage: Stage, watchdog: Watchdog, capsys: pytest.CaptureFixture[str]) -> str:
    figures = run_flows.run([one_flow()], stage, watchdog)
    assert figures.violations == 1
    return capsys.readouterr().err


def test_a_flow_that_goes_otherwise_is_seen_and_can_be_repeated(
    stage: Stage, watchdog: Watchdog, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(auth, "_BACKOFF_BASE", 2)
    said = broken_flow(stage, watchdog, capsys)
    assert "delays asked for: [2], and it should be [1]" in said
    assert f'make chaos ARGS="--flow {SEED}:0"' in said


def test_one_request_too_many_is_seen(
    stage: Stage, watchdog: Watchdog, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    genuine = auth._default_http_transport

    def twice(method: str, url: str, **more: Any) -> Any:
        if url.endswith("/register"):
            genuine(method, url, **more)
        return genuine(method, url, **more)

    monkeypatch.setattr(auth, "_default_http_transport", twice)
    assert "requests at the server" in broken_flow(stage, watchdog, capsys)


def broken_life(watchdog: Watchdog, capsys: pytest.CaptureFixture[str]) -> str:
    figures = run_lives.run([f"{SEED}:{number}" for number in range(3)], 30, watchdog)
    assert figures.violations > 0
    return capsys.readouterr().err


def with_answer(change: Callable[[str], str]) -> Callable[[Simulated], str]:
    genuine = auth.AuthManager.get_token
    return lambda manager: change(genuine(manager))


def test_a_token_from_long_ago_is_seen(
    watchdog: Watchdog, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    kept: list[str] = []

    def first_one(token: str) -> str:
        kept.append(token)
        return kept[0]

    monkeypatch.setattr(Simulated, "get_token", with_answer(first_one))
    said = broken_life(watchdog, capsys)
    assert "a token from long ago" in said or "a token that has expired" in said
    assert f'make chaos ARGS="--life {SEED}:' in said


def test_an_expired_token_is_seen(
    watchdog: Watchdog, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(auth, "_REFRESH_RATIO", 1.5)
    monkeypatch.setattr(auth, "_TOKEN_LIFETIME", 2 * 86400)
    assert "a token that has expired" in broken_life(watchdog, capsys)


def test_a_refresh_before_its_time_is_seen(
    watchdog: Watchdog, capsys: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    def hasty(manager: Simulated) -> None:
        with contextlib.suppress(Broken):
            manager._do_refresh()
        auth.AuthManager._refresh_loop(manager)

    monkeypatch.setattr(Simulated, "_refresh_loop", hasty, raising=False)
    assert "a refresh before its time" in broken_life(watchdog, capsys)


def test_good_answers_are_the_services_own() -> None:
    assert GOOD.effect(Answer(418)) == Answer(418)


@pytest.mark.parametrize("what", ["blocks", "native", "resident", "threads", "descriptors"])
def test_growth_is_seen(what: str, watchdog: Watchdog, capsys: pytest.CaptureFixture[str]) -> None:
    early = run_lives.Size(blocks=1, native=1, resident=1, threads=1, descriptors=1)
    run = run_lives._Run(1000, watchdog)
    run.compare(early, early, managers=1000)
    assert run.figures.violations == 0
    # One object of 16 bytes kept from each of the refreshes of 900 days.
    kept = 1 if what in ("threads", "descriptors") else 900 * 1000 * (1 if what == "blocks" else 32)
    run.compare(early, replace(early, **{what: 1 + kept}), managers=1000)
    assert run.figures.violations == 1
    assert "have grown by" in capsys.readouterr().err


def test_a_hang_is_ended_with_its_name_and_every_stack() -> None:
    program = (
        "import threading, time\n"
        "from chaos.watchdog import Watchdog\n"
        "Watchdog(0.1).watch('flow 7:7')\n"
        "def stuck_for_ever():\n"
        "    time.sleep(600)\n"
        "threading.Thread(target=stuck_for_ever, daemon=True).start()\n"
        "time.sleep(600)\n"
    )
    ended = project.run(sys.executable, "-c", program)
    assert ended.returncode == HUNG
    assert "HANG after" in ended.stderr
    assert "flow 7:7" in ended.stderr
    assert "in stuck_for_ever" in ended.stderr


@pytest.mark.process
def test_the_command_plays_flows_and_lives_and_ends_with_its_figures() -> None:
    ended = project.run("tools/chaos", "--flows", "4", "--managers", "2", "--days", "2", "--keeper-days", "1")
    assert ended.returncode == 0, ended.stdout + ended.stderr
    last = ended.stdout.splitlines()[-1]
    assert re.search(r": 4 flows, \d+ requests, 4 simulated days, 0 hangs, 0 violations$", last), last

"""A small part of `make chaos`, and whether it detects faults."""

from __future__ import annotations

import contextlib
import re
import sys
from collections.abc import Callable, Iterator
from dataclasses import replace
from typing import Any

import pytest

from chaos import run_flows, run_lives
from chaos.catalogue import FAULTS
from chaos.contract import Fault
from chaos.life import Broken, Simulated
from chaos.scenario import Scenario, draw
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


def test_lives_go_as_they_must(watchdog: Watchdog) -> None:
    figures = run_lives.run([f"{SEED}:{number}" for number in range(20)], 40, watchdog)
    assert (figures.days, figures.violations) == (800, 0)
    assert figures.faults > 50
    assert figures.stores > 800


def test_the_same_number_draws_the_same_flow() -> None:
    assert [draw(3, number) for number in range(50)] == [draw(3, number) for number in range(50)]
    assert draw(3, 0) != draw(4, 0)


# It detects faults.


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


@pytest.mark.parametrize("what", ["blocks", "native", "resident", "threads", "descriptors"])
def test_growth_is_seen(what: str, watchdog: Watchdog, capsys: pytest.CaptureFixture[str]) -> None:
    early = run_lives.Size(blocks=1, native=1, resident=1, threads=1, descriptors=1)
    run = run_lives._Run(1000, watchdog)
    run.compare(early, early, managers=1000)
    assert run.figures.violations == 0
    # One object of 16 bytes per refresh in 900 days.
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

"""Operating it: the statements of the page on log and states, and each of its blocks, on a stepped clock."""

from __future__ import annotations

import json
import logging
import re
import ssl
from collections.abc import Callable, Iterator
from typing import Any, get_args

import pytest

from tessaline.auth import AuthError, AuthManager
from tessaline.keeper import Keeper
from tessaline.keeper.status import STATES, EventKind
from tessaline.testing import HOUR, URL, FakeClock, claims_of
from tests.shared.threads import until

from .operated import ADDRESS, LIFETIME, PAGE, Operated, Service, block_with
from .pages import code_blocks, code_in, rows, run, section

pytestmark = pytest.mark.process


NOTHING_LEFT = "no token is left to serve"


@pytest.fixture
def operated() -> Iterator[Operated]:
    with Operated() as started:
        yield started


def names_of(keeper: Keeper, *texts: str) -> dict[str, Any]:
    """The names that these blocks define."""
    names: dict[str, Any] = {"keeper": keeper, "logging": logging}
    for text in texts:
        run(block_with(text), names)
    return names


def test_every_block_is_run_here() -> None:
    here = ["JsonLines", "first_tenth", "health()", "start(wait", "class Tokens"]
    elsewhere = ["KeeperCollector", "get_meter", "livemin"]  # test_operating_metrics.py, _processes.py
    places = [block_with(text).place for text in here + elsewhere]
    assert sorted(places) == sorted(block.place for block in code_blocks(PAGE))


# The log.


def lead_a_life(operated: Operated) -> None:
    """Causes every event of the page."""
    operated.keeper.start()
    operated.step(16 * HOUR)
    operated.service.era = 2
    operated.keeper.notify_era_change(2)
    operated.wait_for("good")
    operated.service.away = True
    operated.step(16 * HOUR)
    operated.step(7.5 * HOUR)
    until(lambda: "running out" in operated.kinds(), "the warning")
    operated.service.away = False
    operated.service.refuses.add(ADDRESS)
    operated.step(HOUR / 4)
    until(lambda: "stopped" in operated.kinds(), "the end")


def pattern(message: str) -> re.Pattern[str]:
    """A message of the page, with any numbers."""
    return re.compile(re.sub(r"\d+(\\\.\d+)?", r"\\d+(\\.\\d+)?", re.escape(message)))


def test_the_log_is_as_told(operated: Operated, caplog: pytest.LogCaptureFixture) -> None:
    caplog.set_level(logging.INFO, "tessaline.keeper")
    lead_a_life(operated)
    until(lambda: len(caplog.records) == len(operated.events), "as many records as events")
    told = {
        code_in(kind)[0]: (level, code_in(message)[0]) for kind, level, message, _ in rows(PAGE, "Log")[:6]
    }
    assert sorted(told) == sorted(get_args(EventKind))
    assert set(operated.kinds()) == set(told)
    heads = {kind: message.split(":")[0] for kind, (_, message) in told.items()}
    for record in caplog.records:
        event = vars(record)["tessaline_event"]
        assert record.name == "tessaline.keeper"
        assert record.levelname == told[event.kind][0]
        text = record.getMessage().removeprefix(f"{ADDRESS}: ")
        assert pattern(heads[event.kind]).match(text) or text.startswith(NOTHING_LEFT)
    assert f"`{NOTHING_LEFT}`" in PAGE.read_text()
    # The rest of a message depends on the cause; that of the page has occurred once.
    texts = [record.getMessage().removeprefix(f"{ADDRESS}: ") for record in caplog.records]
    for kind in ("logged in", "renewed", "era met", "attempt failed", "running out"):
        assert any(pattern(told[kind][1]).fullmatch(text) for text in texts), kind


def test_a_wallet_that_is_refused_is_told_as_shown(operated: Operated) -> None:
    operated.keeper.start()
    operated.service.forged = True
    operated.step(16 * HOUR)
    until(lambda: operated.kinds()[-1] == "stopped", "the end")
    (shown,) = [code_in(message)[0] for kind, _, message, _ in rows(PAGE, "Log")[:6] if kind == "`stopped`"]
    assert pattern(shown).fullmatch(operated.events[-1].message)


def test_what_somebody_has_to_see_to_is_an_error(operated: Operated) -> None:
    operated.keeper.start()
    operated.service.error = ssl.SSLCertVerificationError("certificate verify failed")
    operated.step(16 * HOUR)
    until(lambda: operated.kinds()[-1] == "attempt failed", "the failure")
    assert operated.events[-1].level == logging.ERROR
    assert operated.keeper.status().next_attempt is not None


def test_the_attributes_are_those_told(operated: Operated, caplog: pytest.LogCaptureFixture) -> None:
    caplog.set_level(logging.INFO, "tessaline.keeper")
    operated.keeper.start()
    (record,) = caplog.records
    told = [code_in(name)[0] for name, *_ in rows(PAGE, "Log")[6:] if name.startswith("`tessaline_")]
    assert sorted(told) == sorted(name for name in vars(record) if name.startswith("tessaline_"))


def test_a_json_object_a_line(operated: Operated, caplog: pytest.LogCaptureFixture) -> None:
    caplog.set_level(logging.INFO)
    formatter = names_of(operated.keeper, "JsonLines")["JsonLines"]()
    operated.keeper.start()
    logging.getLogger("elsewhere").warning("of %s", "another")
    told, other = (json.loads(formatter.format(record)) for record in caplog.records)
    assert (told["level"], told["kind"], told["address"]) == ("INFO", "logged in", ADDRESS)
    assert (told["lasts"], told["at"]) == (LIFETIME, operated.clock.now)
    assert other == {"level": "WARNING", "message": "of another"}


def test_fewer_failures_pass_and_all_else(operated: Operated, caplog: pytest.LogCaptureFixture) -> None:
    caplog.set_level(logging.INFO, "tessaline.keeper")
    logger = logging.getLogger("tessaline.keeper")
    names = names_of(operated.keeper, "first_tenth")
    try:
        operated.keeper.start()
        operated.service.error = OSError("the proxy refuses")
        operated.step(16 * HOUR)
        for _ in range(11):
            operated.step(HOUR / 4)
        operated.service.error = None
        operated.step(HOUR / 4)
        until(lambda: operated.kinds()[-1] == "renewed", "a renewal")
        logger.error("a record without an event")
        passed = [vars(record)["tessaline_event"] for record in caplog.records[:-1]]
        assert [(event.kind, event.failures) for event in passed] == [
            ("logged in", 0),
            ("attempt failed", 1),
            ("attempt failed", 10),
            ("renewed", 12),
        ]
        assert operated.kinds().count("attempt failed") >= 12
    finally:
        logger.removeFilter(names["first_tenth_hundredth"])


def test_an_outage_logs_as_often_as_told(operated: Operated) -> None:
    operated.keeper.start()
    operated.service.error = OSError("the proxy refuses")
    operated.step(16 * HOUR)
    for _ in range(12):
        operated.to_next_attempt()
    began, count = operated.clock.now, 40
    for _ in range(count):
        operated.to_next_attempt()
    an_hour = count * HOUR / (operated.clock.now - began)
    (told,) = re.findall(r"about (\d+) failed attempts an hour", section(PAGE, "Log"))
    assert an_hour == pytest.approx(float(told), rel=0.2)


# States, health.


def test_the_states_are_those_there_are() -> None:
    assert [code_in(state)[0] for state, *_ in rows(PAGE, "Status")] == list(STATES)


def closed(operated: Operated) -> None:
    operated.keeper.close()


def stopped(operated: Operated) -> None:
    operated.keeper.start()
    operated.service.refuses.add(ADDRESS)
    operated.step(16 * HOUR)


def expired(operated: Operated) -> None:
    retrying(operated)
    operated.step(HOUR * 10)


def logging_in(operated: Operated) -> None:
    operated.service.hold()
    operated.keeper.start(wait=False)


def not_started(operated: Operated) -> None:
    pass


def retrying(operated: Operated) -> None:
    operated.keeper.start()
    operated.service.error = OSError("the proxy refuses")
    operated.step(16 * HOUR)


def renewing(operated: Operated) -> None:
    operated.keeper.start()
    operated.service.hold()
    operated.clock.advance(16 * HOUR)


def good(operated: Operated) -> None:
    operated.keeper.start()


LIVES: dict[str, Callable[[Operated], None]] = {
    function.__name__.replace("_", " "): function
    for function in (closed, stopped, expired, logging_in, not_started, retrying, renewing, good)
}


@pytest.mark.parametrize("state", STATES)
def test_health_is_whether_a_token_is_served(state: str, operated: Operated) -> None:
    (served,) = [cell for name, cell, _ in rows(PAGE, "Status") if code_in(name) == [state]]
    LIVES[state](operated)
    operated.wait_for(state)
    health = names_of(operated.keeper, "health()")["health"]
    status, body = health()
    assert (status == 200) == (served != "no") == (body["seconds_left"] > 0)
    assert body["state"] == state
    json.dumps(body)
    try:
        operated.keeper.get_token(timeout=0)
    except (AuthError, OSError):
        assert status == 503
    else:
        assert status == 200


# What to do.


def test_a_stopped_wallet_is_tried_again(operated: Operated) -> None:
    stopped(operated)
    old = operated.keeper.get_token()
    operated.service.refuses.clear()
    run(block_with("start(wait=False)"), {"keeper": operated.keeper})
    operated.wait_for("good")
    assert operated.keeper.get_token() != old


def test_another_key(operated: Operated) -> None:
    operated.keeper.start()
    tokens = names_of(operated.keeper, "class Tokens")["Tokens"](operated.keeper)
    first = tokens.get_token()
    clock = FakeClock()
    refusing = Service()
    refusing.refuses.add(AuthManager(f"{2:064x}", URL).get_wallet_address())
    with pytest.raises(AuthError, match="unauthorized"):
        tokens.replace(AuthManager(f"{2:064x}", URL, clock=clock, _transport=refusing))
    assert tokens.get_token() == first
    replaced = tokens.replace(AuthManager(f"{3:064x}", URL, clock=clock, _transport=operated.service))
    with tokens.keeper:
        assert replaced is operated.keeper
        replaced.close()
        second = tokens.get_token()
        (address,) = tokens.keeper
        assert claims_of(second)["sub"] == address != ADDRESS
        assert tokens.report_refused(second) is True
        assert tokens.get_token() != second

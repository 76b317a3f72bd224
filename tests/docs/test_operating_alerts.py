"""The alerts of the page, evaluated on the metrics of its exporter, while days pass on a stepped clock."""

from __future__ import annotations

from collections.abc import Iterator

import prometheus_client.core
import pytest
import yaml
from prometheus_client import CollectorRegistry, generate_latest
from prometheus_client.parser import text_string_to_metric_families

from tessaline.keeper import schedule
from tessaline.testing import HOUR

from .alerts import Rule, rules_of
from .operated import ADDRESS, LIFETIME, PAGE, Operated, block_with
from .pages import run, section

pytestmark = pytest.mark.process

FIRST_RENEWAL, LAST_RENEWAL = (LIFETIME * 0.6 * (1 + sign * schedule.RENEWAL_JITTER) for sign in (-1, 1))
STEP = HOUR / 4


class Watched(Operated):
    """An operated keeper, and a Prometheus for it."""

    def __init__(self, registry: CollectorRegistry) -> None:
        super().__init__()
        self.registry = registry
        self.rules: dict[str, Rule] = rules_of(yaml.safe_load(block_with("alert: NoToken").text))
        self.fired: list[tuple[str, float]] = []
        self.firing: set[str] = set()

    def watch(self, seconds: float) -> None:
        """Advance the time and evaluate the rules; record which begin to fire, and how much is left."""
        for _ in range(round(seconds / STEP)):
            self.step(STEP)
            self.judge()

    def judge(self) -> None:
        metrics = list(text_string_to_metric_families(generate_latest(self.registry).decode()))
        now = {name for name, rule in self.rules.items() if rule.fires(metrics, self.clock.now)}
        left = self.keeper.status().seconds_left
        self.fired += [(name, left) for name in sorted(now - self.firing)]
        self.firing = now


@pytest.fixture
def watched(monkeypatch: pytest.MonkeyPatch) -> Iterator[Watched]:
    registry = CollectorRegistry()
    monkeypatch.setattr(prometheus_client.core, "REGISTRY", registry)
    with Watched(registry) as started:
        run(block_with("KeeperCollector"), {"keeper": started.keeper})
        yield started


def test_days_without_trouble_are_quiet(watched: Watched) -> None:
    watched.keeper.start()
    watched.watch(10 * LIFETIME)
    assert watched.service.logins > 10
    assert watched.fired == []


def test_an_outage_is_told_hours_before_the_token_dies(watched: Watched) -> None:
    watched.keeper.start()
    watched.service.error = OSError("the proxy refuses")
    watched.watch(LIFETIME + HOUR)
    left = dict(watched.fired)
    assert [name for name, _ in watched.fired] == ["TokenNotRenewed", "TokenRunsOut", "NoToken"]
    assert 7 * HOUR < left["TokenNotRenewed"] < 8 * HOUR
    assert HOUR < left["TokenRunsOut"] < 2 * HOUR
    watched.service.error = None
    watched.watch(HOUR)
    assert watched.firing == set()


def test_an_outage_that_is_over_in_an_hour_is_quiet(watched: Watched) -> None:
    watched.keeper.start()
    watched.watch(FIRST_RENEWAL // STEP * STEP)
    watched.service.error = OSError("the proxy refuses")
    watched.watch(HOUR)
    watched.service.error = None
    watched.watch(LIFETIME / 2)
    assert watched.fired == []


def test_a_wallet_that_stops_is_told_while_its_token_is_good(watched: Watched) -> None:
    watched.keeper.start()
    watched.service.refuses.add(ADDRESS)
    watched.watch(LAST_RENEWAL + HOUR)
    assert watched.fired[0][0] == "WalletStopped"
    assert watched.fired[0][1] > 8 * HOUR


def test_no_login_at_all_is_told(watched: Watched) -> None:
    watched.service.error = OSError("the proxy refuses")
    watched.keeper.start(wait=False)
    watched.step(STEP)
    watched.watch(HOUR)
    assert "NoToken" in watched.firing


def test_an_era_that_nobody_gives_is_told(watched: Watched) -> None:
    watched.keeper.start()
    watched.keeper.notify_era_change(2)
    watched.watch(HOUR)
    assert "NoToken" in watched.firing


def test_a_process_that_is_gone_is_told() -> None:
    registry = CollectorRegistry()
    with Watched(registry) as watched:
        watched.keeper.start()
        watched.watch(HOUR)
        assert watched.firing == {"NoKeeper"}


def test_the_thresholds_are_those_told() -> None:
    rules = rules_of(yaml.safe_load(block_with("alert: NoToken").text))
    # A due renewal and half an hour of attempts come before the first alert.
    assert rules["TokenNotRenewed"].threshold + HOUR / 2 < LIFETIME - LAST_RENEWAL
    assert rules["TokenNotRenewed"].threshold - rules["TokenNotRenewed"].seconds > 7 * HOUR
    assert f"{1 + schedule.RENEWAL_JITTER} \N{MULTIPLICATION SIGN} `renew_at`" in section(PAGE, "Alerts")


def test_each_alert_has_a_paragraph() -> None:
    rules = rules_of(yaml.safe_load(block_with("alert: NoToken").text))
    text = section(PAGE, "What to do")
    assert [line.removeprefix("### ") for line in text.splitlines() if line.startswith("### ")] == list(rules)


def test_each_rule_is_labelled_and_told_in_words() -> None:
    (group,) = yaml.safe_load(block_with("alert: NoToken").text)["groups"]
    for rule in group["rules"]:
        assert set(rule) <= {"alert", "expr", "for", "labels", "annotations"}
        assert rule["labels"]["severity"] in ("warning", "critical")
        assert rule["annotations"]["summary"]

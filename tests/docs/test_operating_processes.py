"""The page's statements on threads, memory and forks, and the numbers at its top."""

from __future__ import annotations

import gc
import os
import re
import subprocess
import sys
import threading
import tracemalloc
from pathlib import Path

import pytest
import yaml
from prometheus_client.core import GaugeMetricFamily

from tessaline.keeper import schedule
from tessaline.testing import HOUR
from tests.sanitized import patience, searches_all_memory
from tests.shared.threads import until

from .alerts import Rule, rules_of
from .operated import LIFETIME, PAGE, Operated, block_with
from .pages import rows, section

pytestmark = pytest.mark.process

WALLETS = 100


def hours_and_minutes(seconds: float) -> str:
    hours, minutes = divmod(int(seconds // 60), 60)
    return f"{hours} h {minutes} min"


def test_renewals_are_when_told() -> None:
    text = " ".join(PAGE.read_text().split())
    early, late = (LIFETIME * 0.6 * (1 + sign * schedule.RENEWAL_JITTER) for sign in (-1, 1))
    assert f"{hours_and_minutes(early + 30)} to {hours_and_minutes(late + 30)} after the login" in text
    assert f"never fewer than {hours_and_minutes(LIFETIME - late)} left" in text
    first, longest = schedule.FIRST_BACK_OFF, schedule.LONGEST_BACK_OFF / 60
    assert f"{first:.0f} to {2 * first:.0f} s at first and after at most {longest:.0f} min" in text


def own_threads(before: set[threading.Thread]) -> list[str]:
    return sorted(thread.name for thread in threading.enumerate() if thread not in before)


def test_threads_are_as_told() -> None:
    told = {row[0]: row[1] for row in rows(PAGE, "Threads and memory")}
    assert told["threads of a keeper"] == "one, `tessaline-keeper`"
    before = set(threading.enumerate())
    with Operated(wallets=20) as operated:
        operated.service.hold()
        operated.keeper.start(wait=False)
        # By default, as many as may log in at once.
        until(lambda: own_threads(before) == ["tessaline-keeper"] + ["tessaline-login"] * 8, "busy threads")
        operated.service.let_go()
        until(lambda: own_threads(before) == ["tessaline-keeper"], "an idle keeper")
        assert operated.keeper.status().state == "good"


@searches_all_memory
def test_memory_is_as_told() -> None:
    (told,) = re.findall(r"less than (\d+) KiB", section(PAGE, "Threads and memory"))
    with Operated() as first:
        first.keeper.start()
        gc.collect()
        tracemalloc.start()
        try:
            with Operated(wallets=WALLETS) as operated:
                operated.keeper.start()
                operated.events.clear()
                operated.service.requests.clear()
                gc.collect()
                used, _ = tracemalloc.get_traced_memory()
        finally:
            tracemalloc.stop()
    # The native memory of a manager, such as its key, is not traced: at most 2 KiB.
    assert used / WALLETS / 1024 + 2 < float(told)


FORKING = """
import os, sys, time, warnings
warnings.simplefilter("ignore", DeprecationWarning)
from prometheus_client import CollectorRegistry
from prometheus_client.multiprocess import MultiProcessCollector
from tessaline.auth import AuthManager
from tessaline.keeper import Keeper
from tessaline.testing import HOUR, KEY, URL, FakeClock, FakeService

names = {}
exec(compile(sys.stdin.read(), "operating.md", "exec"), names)
clock = FakeClock()
manager = AuthManager(KEY, URL, clock=clock, _transport=FakeService())
keeper = names["keeper"] = Keeper(manager, on_event=names["on_event"])

def renew():
    before = keeper.status().expiry
    clock.advance(16 * HOUR)
    limit = time.monotonic() + 10
    while keeper.status().expiry == before or soonest() is None:
        assert time.monotonic() < limit
        time.sleep(0.01)

def soonest():
    registry = CollectorRegistry()
    MultiProcessCollector(registry)
    labels = {"address": manager.get_wallet_address()}
    return registry.get_sample_value("tessaline_token_expiry_timestamp_seconds", labels)

keeper.start()
began = clock.now
told, telling = os.pipe()
ended, ending = os.pipe()
if (child := os.fork()) == 0:
    os.close(ending)
    renew()
    renew()
    os.write(telling, b"!")
    os.read(ended, 1)
    os._exit(0)
assert os.read(told, 1) == b"!"
# The child's token is the newer one.
print(soonest() - began)
renew()
limit = time.monotonic() + 10
while soonest() == began + 24 * HOUR:
    assert time.monotonic() < limit
    time.sleep(0.01)
print(soonest() - began)
os.write(ending, b"!")
assert os.waitpid(child, 0)[1] == 0
keeper.close()
"""


def test_the_first_token_to_expire_of_all_processes_is_told(tmp_path: Path) -> None:
    done = subprocess.run(
        [sys.executable, "-c", FORKING],
        env=os.environ | {"PROMETHEUS_MULTIPROC_DIR": str(tmp_path)},
        input=block_with("livemin").text,
        capture_output=True,
        text=True,
        timeout=patience(60.0),
    )
    assert (done.returncode, done.stderr) == (0, "")
    assert [float(line) for line in done.stdout.split()] == [24 * HOUR, 40 * HOUR]


def test_the_alert_on_the_expiry_fires_with_the_other() -> None:
    (expression,) = re.findall(r"^    (tessaline_token_expiry\S+ - .*)$", PAGE.read_text(), re.M)
    other = rules_of(yaml.safe_load(block_with("alert: NoToken").text))["TokenNotRenewed"]
    rule = Rule("expiry", expression, 0.0)
    assert rule.threshold == other.threshold
    for left, fires in ((rule.threshold + 1, False), (rule.threshold - 1, True)):
        metric = GaugeMetricFamily("tessaline_token_expiry_timestamp_seconds", "", labels=["address"])
        metric.add_metric(["0x1"], 1e9 + left)
        assert rule.fires([metric], 1e9) == fires

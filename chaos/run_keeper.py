"""Days of keepers, and their results."""

from __future__ import annotations

import logging
import sys
import threading
import time
import traceback
from dataclasses import dataclass

from tessaline import auth
from tests.keeper.support.looks import Sleepless, quick_looks

from .keeper_days import Days
from .keeper_weather import DAY, HOUR, drawn
from .watchdog import Watchdog


@dataclass
class Figures:
    """The results of the days. hours_away: of outages. refused: calls without a valid token."""

    keeper_days: int = 0
    outages: int = 0
    hours_away: int = 0
    eras: int = 0
    logins: int = 0
    requests: int = 0
    served: int = 0
    refused: int = 0
    violations: int = 0


def run(seed: str, days: int, watchdog: Watchdog) -> Figures:
    """Simulate that many days; prints violations on standard error with the command that repeats them."""
    figures = Figures(keeper_days=days)
    watchdog.watch(f"the keeper's days {seed}\n{command(seed, days)}")
    life = Days(seed)
    threads = threading.active_count()
    genuine, auth._time = auth._time, Sleepless()  # type: ignore[assignment]
    # A hundred thousand failures would be logged.
    logging.disable(logging.CRITICAL)
    try:
        with quick_looks():
            life.live(drawn(seed, days), days * DAY)
    except Exception:
        life.trouble.append(traceback.format_exc())
    finally:
        logging.disable(logging.NOTSET)
        auth._time = genuine
    watchdog.rest()
    limit = time.monotonic() + 10
    while threading.active_count() > threads and time.monotonic() < limit:
        time.sleep(0.01)
    if threading.active_count() > threads:
        life.trouble.append(f"threads are left behind: {threading.enumerate()[:5]}")
    for text in life.trouble[:5]:
        print(f"VIOLATION in the keeper's days {seed}: {text}\n{command(seed, days)}", file=sys.stderr)
    counted = life.counted
    figures.outages, figures.eras = counted["away"], counted["era"]
    figures.hours_away = round(life.seconds_away / HOUR)
    figures.logins, figures.requests = counted["logins"], counted["requests"]
    figures.served, figures.refused = counted["served"], counted["refused"]
    figures.violations = len(life.trouble)
    return figures


def command(seed: str, days: int) -> str:
    """The command that repeats them."""
    return f'make chaos ARGS="--keeper {seed} --keeper-days {days}"'

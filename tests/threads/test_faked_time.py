"""If another library fakes the time, tokens are served by the manager's clock."""

from __future__ import annotations

import pytest

from . import programs

pytestmark = pytest.mark.process

FAKES = {
    "time_machine": "import time_machine\nfakes = time_machine.travel(4_000_000_000.0, tick={tick})\n",
    "freezegun": "import datetime, freezegun\n"
    "fakes = freezegun.freeze_time(datetime.datetime(2096, 10, 2), tick={tick})\n",
}

# Back-off ends at once, and monotonic time advances whatever the real one does.
PRELUDE = (
    programs.USUAL
    + """
from itertools import count
from tests.contract.support.host import ShortSleeps

auth._time = ShortSleeps()

def new():
    return manager_with("a.b.c", None, default_clock=True)

def check(manager):
    # Twice each, for state that a manager may keep from the first time.
    for _ in range(2):
        for age in (-50_000.0, -5.0, 5.0, 50_000.0):
            manager._token_expiry = manager._get_time() - age
            manager._auth_time, manager._refresh_at = 0.0, manager._get_time() + 90_000.0
            assert outcome(manager.get_token) == ("a.b.c" if age < 0.0 else "token_expired"), age
        manager._token_expiry = manager._get_time() + 50_000.0
        for age, due in ((-50.0, False), (50.0, True)):
            manager._refresh_event.clear()
            manager._refresh_done.set()
            manager._auth_time, manager._refresh_at = 0.0, manager._get_time() - age
            assert outcome(manager.get_token) == "a.b.c"
            assert manager._refresh_event.is_set() is due
"""
)

# Code before the prelude, which imports the component, and after it.
MOMENTS = {
    "at the import, and on": ("fakes.start()", "check(new())"),
    "at the import, a manager of then": (
        "fakes.start()",
        "manager = new(); check(manager); fakes.stop(); check(manager)",
    ),
    "at the import, a manager of later": ("fakes.start()", "fakes.stop(); check(new())"),
    "at the import, and again": (
        "fakes.start()",
        "fakes.stop(); manager = new(); check(manager); fakes.start(); check(manager)",
    ),
    "after a manager was made": (
        "",
        "manager = new(); fakes.start(); check(manager); fakes.stop(); check(manager)",
    ),
    "after a manager was used": (
        "",
        "manager = new(); check(manager); fakes.start(); check(manager); fakes.stop(); check(manager)",
    ),
    "while a manager is made": (
        "",
        "fakes.start(); manager = new(); check(manager); fakes.stop(); check(manager); check(new())",
    ),
}


@pytest.mark.parametrize("fake", FAKES)
@pytest.mark.parametrize("moment", MOMENTS)
def test_tokens_go_by_the_clock_that_is_faked(moment: str, fake: str) -> None:
    before, program = MOMENTS[moment]
    programs.run(program, before=f"{FAKES[fake].format(tick=False)}{before}\n", prelude=PRELUDE)


@pytest.mark.parametrize("moment", ["before the import", "after it"])
def test_a_day_passes_in_an_instant(moment: str) -> None:
    begin = "traveller = fakes.start()\n"
    program = """
        service = Service()
        manager = build(service, default_clock=True)
        manager.authenticate()
        assert manager.get_token() == service.tokens[0]
        traveller.shift(2 * LIFETIME)
        assert manager.get_token() == service.tokens[1]
        traveller.shift(-2 * LIFETIME)
        assert manager.get_token() == service.tokens[1]
        fakes.stop()
        assert outcome(manager.get_token) == service.tokens[1]
        manager.close()
    """
    fake = FAKES["time_machine"].format(tick=True)
    if moment == "before the import":
        programs.run(program, before=fake + begin)
    else:
        programs.run(program, before=fake, prelude=programs.USUAL + begin)

"""Signal handlers that raise or close the keeper, at every point where one can run."""

from __future__ import annotations

import pytest

from .support import programs

pytestmark = pytest.mark.process

# A trace function is called where the interpreter checks for signals, and sends one there.
MOMENTS = """
import itertools
import tessaline.keeper.scheduler as scheduler
from tests.keeper.support.driving import settle
# A handler that closes waits for threads which wait for the interrupted one.
scheduler._JOIN = 0.01
signal.alarm(20)

class Interruption(Exception):
    pass

def at_moment(number, kinds, call):
    # Make the call, and send a signal at the point with this number; returns whether there was one.
    left = [number]
    def look(frame, kind, argument):
        code = frame.f_code
        if kind in kinds and f"{os.path.basename(code.co_filename)}:{code.co_qualname}:".startswith(PLACES):
            if left[0] == 0:
                sys.settrace(None)
                left[0] = -1
                signal.raise_signal(signal.SIGUSR1)
            left[0] -= 1
        return look
    sys.settrace(look)
    try:
        call()
    finally:
        sys.settrace(None)
    return left[0] < 0

def interrupt(*_):
    raise Interruption
"""

ERA = """
PLACES = ("keeper.py", "scheduler.py", "wallet.py", "ledger.py", "clocks.py")
signal.signal(signal.SIGUSR1, interrupt)
# The clock stands still: a failed attempt would not be retried.
board = EraBoard()
keeper = Keeper(fleet(service, clock, 3), era_board=board)
keeper.start()
for moment in itertools.count():
    settle(keeper, clock)
    service.era += 1
    try:
        if not at_moment(moment, ("call", "return"), lambda: keeper.notify_era_change(service.era)):
            break
    except Interruption:
        pass
    if {again}:
        keeper.notify_era_change(service.era)
    for one in keeper:
        assert era_of(keeper[one].get_token()) == service.era, moment
assert moment > 20, moment
keeper.close()
print(time.monotonic(), flush=True)
"""

AGAIN = {
    "it is announced again": "True",
    "the next look mends it": "board.era < service.era",
}


@pytest.mark.parametrize("then", AGAIN)
def test_an_announcement_that_is_interrupted_loses_no_wallet(then: str) -> None:
    programs.run(ERA.format(again=AGAIN[then]), prelude=programs.PRELUDE + MOMENTS)


def test_a_start_that_is_interrupted_is_made_again() -> None:
    program = """
PLACES = ("keeper.py", "scheduler.py", "wallet.py", "ledger.py", "clocks.py", "takeover.py", "patience.py")
signal.signal(signal.SIGUSR1, interrupt)
for moment in itertools.count():
    keeper = Keeper(fleet(service, clock, 2))
    try:
        if not at_moment(moment, ("call", "return"), lambda: keeper.start(wait=False)):
            break
    except Interruption:
        pass
    keeper.start()
    for one in keeper:
        assert keeper[one].get_token(timeout=0) == service.newest(one)
    keeper.close()
assert moment > 20, moment
keeper.close()
print(time.monotonic(), flush=True)
    """
    programs.run(program, prelude=programs.PRELUDE + MOMENTS)


def test_a_handler_closes_the_keeper_during_the_start() -> None:
    program = """
PLACES = ("keeper.py", "scheduler.py", "wallet.py", "takeover.py", "patience.py", "threading.py")
signal.signal(signal.SIGUSR1, lambda *_: keeper.close())
for moment in itertools.count():
    keeper = Keeper(manager(service, clock))
    try:
        if not at_moment(moment, ("call", "line"), lambda: keeper.start(wait=False)):
            break
        outcome = "started"
    except auth.AuthError as error:
        outcome = error.reason
    assert outcome in ("started", "manager_closed")
    assert keeper.status().state == "closed"
    assert reason_of(keeper.get_token) == "manager_closed"
assert moment > 40, moment
keeper.close()
until(lambda: threading.active_count() == 1)
print(time.monotonic(), flush=True)
    """
    programs.run(program, prelude=programs.PRELUDE + MOMENTS)


CALLS = {
    "start": "keeper.start()",
    "get_token": "keeper.get_token(timeout=None)",
}


@pytest.mark.parametrize("name", CALLS)
def test_a_handler_closes_the_keeper_when_a_wait_begins(name: str) -> None:
    # After the check of what is waited for, and before anything can wake the thread.
    program = f"""
signal.alarm(3)
PLACES = ("threading.py:Condition.wait:",)
signal.signal(signal.SIGUSR1, lambda *_: keeper.close())
keeper = Keeper(manager(service, clock))
gate = service.hold()
keeper.start(wait=False)
gate.reached()
assert reason_of(lambda: at_moment(0, ("call",), lambda: {CALLS[name]})) == "manager_closed"
service.let_go()
print(time.monotonic(), flush=True)
    """
    programs.run(program, prelude=programs.PRELUDE + MOMENTS)

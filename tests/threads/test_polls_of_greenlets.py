"""Greenlets of one thread that wait concurrently for a renewal, and stop waiting in any order."""

from __future__ import annotations

import textwrap

import pytest

from tests.sanitized import moves_stacks

from . import programs

pytestmark = [pytest.mark.process, moves_stacks]

# Each sleep of a poll yields to the scheduler, which resumes one greenlet after the other.
PRELUDE = (
    programs.USUAL
    + """
from greenlet import getcurrent, greenlet
from itertools import permutations, product

class Text(str):
    'A token that can be seen to go.'

main, moment = getcurrent(), 0.0
def sleep(seconds):
    global moment
    moment += seconds
    main.switch("asleep")
auth._time = StandIn(time, sleep=sleep, monotonic=lambda: moment)

# Existing objects need not be scanned at every collection.
gc.freeze()

clock, made = HandClock(), 0
def fresh():
    global made
    made += 1
    return Text(f"a.{made}.c")

def get_token(manager):
    return manager.get_token()
def polled(manager):
    return manager._poll_for_reauth(False)
def polled_with_fallback(manager):
    return manager._poll_for_reauth(True)

def expired():
    return manager_with(fresh(), clock.now - 1.0, clock=clock)

def asleep(manager, *ways):
    greenlets = [greenlet(lambda way=way: outcome(lambda: way(manager))) for way in ways]
    assert [one.switch() for one in greenlets] == ["asleep"] * len(ways)
    return greenlets

def renew(manager):
    gone = weakref.ref(manager._token)
    manager._token, manager._token_expiry = fresh(), clock.now + 1000.0
    return gone

def answers_well(manager):
    # State left by earlier polls would be mistaken for a renewal, or hide one.
    manager._token_expiry = clock.now - 1.0
    assert outcome(lambda: get_token(manager)) == "token_expired"
    assert outcome(lambda: polled(manager)) == "token_expired"
    assert outcome(lambda: polled_with_fallback(manager)) is manager._token
    last, = asleep(manager, get_token)
    gone = renew(manager)
    assert last.switch() is manager._token
    del last
    gc.collect()
    assert gone() is None
"""
)

PROGRAMS = {
    "in any order": """
        # The last one is not used, the others are for one that is killed.
        for order, victim in product(permutations(range(3)), range(4)):
            manager = expired()
            greenlets = asleep(manager, *[get_token] * 3)
            gone = renew(manager)
            for number in order:
                if number == victim:
                    greenlets[number].throw()
                else:
                    assert greenlets[number].switch() is manager._token
                assert greenlets[number].dead
            del greenlets
            gc.collect()
            assert gone() is None
            answers_well(manager)
    """,
    "each with a token of its own": """
        for order in permutations(range(3)):
            manager = expired()
            greenlets, gone = [], []
            for _ in range(3):
                greenlets += asleep(manager, get_token)
                gone.append(renew(manager))
                manager._token_expiry = clock.now - 1.0
            # None of them has seen the change to a valid one: that comes now, and each sees it.
            manager._token_expiry = clock.now + 1000.0
            for number in order:
                assert greenlets[number].switch() is manager._token
            del greenlets
            gc.collect()
            assert [one() for one in gone] == [None] * 3
            answers_well(manager)
    """,
    "of several managers": """
        for order in permutations(range(4)):
            managers = [expired(), expired()]
            greenlets = [asleep(managers[number % 2], get_token)[0] for number in range(4)]
            gone = [renew(manager) for manager in managers]
            for number in order:
                assert greenlets[number].switch() is managers[number % 2]._token
            del greenlets
            gc.collect()
            assert [one() for one in gone] == [None, None]
            for manager in managers:
                answers_well(manager)
    """,
    "one gives up": """
        for other in range(2):
            manager = expired()
            greenlets = asleep(manager, get_token, get_token)
            # Timed out without a renewal, while the other one sleeps on.
            while not greenlets[1 - other].dead:
                said = greenlets[1 - other].switch()
            assert said == "token_expired"
            moment -= 3.0
            gone = renew(manager)
            assert greenlets[other].switch() is manager._token
            del greenlets
            gc.collect()
            assert gone() is None
            answers_well(manager)
    """,
}


@pytest.mark.parametrize("case", PROGRAMS)
def test_polls_side_by_side(case: str) -> None:
    programs.run(textwrap.dedent(PROGRAMS[case]) * 10, prelude=PRELUDE)

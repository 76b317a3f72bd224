"""A keeper in a program that gevent has patched: its threads are greenlets, and none blocks the others."""

from __future__ import annotations

import pytest

from tests.sanitized import moves_stacks

from .support import programs

pytestmark = [pytest.mark.process, moves_stacks]

# With the interpreter's events, and with gevent's.
PATCHED = {
    call: f"from gevent import monkey\nmonkey.{call}\nimport gevent\n" + programs.PRELUDE
    for call in ("patch_all()", "patch_all(Event=False)")
}

PROGRAM = """
    ticks = []
    def tick():
        while True:
            ticks.append(None)
            gevent.sleep(0.002)
    ticking = gevent.spawn(tick)

    keeper = Keeper(fleet(service, clock, 5), at_once=2)
    keeper.start()
    assert all(keeper[one].get_token(timeout=0) == service.newest(one) for one in keeper)
    clock.now += 0.7 * LIFETIME
    until(lambda: len(service.granted) == 10)

    # Waiting for a token does not block the others.
    gate = service.hold()
    clock.now += LIFETIME
    gate.reached()
    waiting = [gevent.spawn(keeper[one].get_token, timeout=None) for one in keeper]
    before = len(ticks)
    until(lambda: len(ticks) > before + 10)
    assert not any(one.ready() for one in waiting)
    service.let_go()
    gevent.joinall(waiting, timeout=10)
    assert [one.value for one in waiting] == [service.newest(one) for one in keeper]

    until(lambda: keeper.status().state == "good")
    clock.now += 600.0
    one = keeper[next(iter(keeper))]
    assert one.report_refused(one.get_token()) is True
    service.era = 2
    keeper.notify_era_change(2)
    assert {era_of(keeper[one].get_token()) for one in keeper} == {2}

    service.fault = away()
    clock.now += LIFETIME
    waiting = [gevent.spawn(reason_of, lambda: keeper[one].get_token(timeout=None)) for one in keeper]
    gevent.sleep(0.01)
    keeper.close()
    gevent.joinall(waiting, timeout=10)
    assert [one.value for one in waiting] == ["manager_closed"] * 5
    ticking.kill()
    print(time.monotonic(), flush=True)
"""


@pytest.mark.parametrize("patch", PATCHED)
def test_it_lives_among_greenlets(patch: str) -> None:
    programs.run(PROGRAM, prelude=PATCHED[patch])


@pytest.mark.parametrize("state", ["retrying", "logging in"])
def test_such_a_program_ends(state: str) -> None:
    begin = {
        "retrying": "service.fault = away(); keeper.start(wait=False)\n"
        "until(lambda: keeper.status().failures)",
        "logging in": "gate = service.hold(); keeper.start(wait=False); gate.reached()",
    }[state]
    program = f"keeper = Keeper(fleet(service, clock, 2))\n{begin}\nprint(time.monotonic(), flush=True)\n"
    programs.run(program, prelude=PATCHED["patch_all()"], runs=3)


@pytest.mark.parametrize("patch", PATCHED)
def test_a_manager_alone(patch: str) -> None:
    program = """
        with manager(service, clock) as alone:
            alone.authenticate()
            assert alone.get_token() == service.granted[0].token
            service.era = 2
            alone.notify_era_change(2)
            got = [gevent.spawn(alone.get_token) for _ in range(3)]
            gevent.joinall(got, timeout=10)
            assert [one.value for one in got] == [service.granted[1].token] * 3
        print(time.monotonic(), flush=True)
    """
    programs.run(program, prelude=PATCHED[patch])


@pytest.mark.parametrize("patch", PATCHED)
def test_an_era_brings_no_failure_where_the_transport_yields(patch: str) -> None:
    program = """
        events = []
        service.on_request = lambda asked: gevent.sleep(0.002)
        keeper = Keeper(fleet(service, clock, 3), on_event=events.append)
        keeper.start()
        for era in (2, 3):
            service.era = era
            keeper.notify_era_change(era)
            # The clock stands still: after a failure there would be no retry.
            assert {era_of(keeper[one].get_token()) for one in keeper} == {era}
        assert {event.kind for event in events} <= {"logged in", "era met"}, events
        assert len(service.granted) == 9
        keeper.close()
        print(time.monotonic(), flush=True)
    """
    programs.run(program, prelude=PATCHED[patch])

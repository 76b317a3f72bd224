"""Managers among greenlets: each is a separate caller, and one that waits does not block the others."""

from __future__ import annotations

import pytest

from tests.sanitized import moves_stacks

from . import programs

pytestmark = [pytest.mark.process, moves_stacks]

GEVENT = "import gevent as green, gevent.monkey\ngevent.monkey.patch_all()\n"
EVENTLET = (
    "import warnings\nwarnings.simplefilter('ignore')\n"
    "import eventlet as green\ngreen.monkey_patch()\nwarnings.resetwarnings()\n"
)
PATCHED = {
    "gevent": GEVENT,
    "gevent after the import": "import tessaline.auth\n" + GEVENT,
    "eventlet": EVENTLET,
    "eventlet after the import": "import tessaline.auth\n" + EVENTLET,
}

# A transport that yields at each request, and a greenlet that counts its turns.
PRELUDE = (
    programs.USUAL
    + """
def give_way(path):
    for _ in range(5):
        green.sleep(0.001)

ticks = []
def tick():
    while True:
        ticks.append(None)
        green.sleep(0.001)
green.spawn(tick)

def others_run():
    seen = len(ticks)
    until(lambda: len(ticks) > seen + 5)

clock, service = HandClock(), Service(era=1)
service.fault = give_way
manager = build(service, clock)
def calls(*many):
    return [Call(green.spawn, one) for one in many]
def callers(count):
    return calls(*[manager.get_token] * count)
"""
)

PROGRAMS = {
    "a login": """
        seen = len(ticks)
        manager.authenticate()
        assert len(ticks) > seen + 5
        assert service.count(VERIFY) == 1
        assert results(callers(3)) == service.tokens * 3
    """,
    "many callers of a running login": """
        gate = service.hold(CHALLENGE)
        first = calls(manager.authenticate)
        gate.reached()
        more = calls(manager.authenticate, manager.authenticate)
        tokens = callers(4)
        others_run()
        assert not any(call.done for call in first + more + tokens)
        service.let_go()
        assert results(first + more) == [None] * 3
        assert results(tokens) == service.tokens * 4
        assert [service.count(path) for path in (REGISTER, CHALLENGE, VERIFY)] == [1, 1, 1]
    """,
    "many logins at once": """
        assert results(calls(*[manager.authenticate] * 8)) == [None] * 8
        assert service.count(VERIFY) == 1
        assert manager.get_token() == service.tokens[0]
    """,
    "a login that fails": """
        gate = service.hold(CHALLENGE)
        service.fault = lambda path: (401, {}, b"{}") if path == CHALLENGE else give_way(path)
        begun = calls(manager.authenticate)
        gate.reached()
        begun += calls(manager.authenticate, manager.get_token)
        others_run()
        service.let_go()
        assert results(begun) == ["unauthorized"] * 3
        service.fault = give_way
        manager.authenticate()
        assert results(callers(2)) == service.tokens * 2
    """,
    "a transport that waits for its own login": """
        seen = []
        def ask(path):
            give_way(path)
            if path == CHALLENGE and not seen:
                for call in (manager.get_token, manager.authenticate):
                    try:
                        call()
                    except RuntimeError as error:
                        seen.append("its own authentication" in str(error))
        service.fault = ask
        assert results(calls(manager.authenticate)) == [None]
        assert seen == [True, True]
        assert manager.get_token() == service.tokens[0]
    """,
    "a greenlet that the transport begins": """
        asked = []
        def ask(path):
            if path == CHALLENGE:
                asked.extend(callers(2))
            give_way(path)
        service.fault = ask
        manager.authenticate()
        assert results(asked) == service.tokens * 2
    """,
    "a renewal": """
        manager.authenticate()
        clock.now += 0.9 * LIFETIME
        until(lambda: service.count(VERIFY) == 2)
        until(lambda: manager.get_token() == service.tokens[1])
        # After the expiry all wait for the renewed one.
        gate = service.hold(VERIFY)
        clock.now += LIFETIME
        waiting = callers(4)
        gate.reached()
        others_run()
        assert not any(call.done for call in waiting)
        service.let_go()
        assert results(waiting) == [service.tokens[2]] * 4
        assert service.count(VERIFY) == 3
    """,
    "an era": """
        manager.authenticate()
        for era in (2, 3):
            service.era = era
            gate = service.hold(CHALLENGE)
            manager.notify_era_change(era)
            waiting = callers(4)
            gate.reached()
            others_run()
            assert not any(call.done for call in waiting)
            service.let_go()
            assert {era_of(token) for token in results(waiting)} == {era}
            assert service.count(VERIFY) == era
    """,
    "a close while a login runs": """
        gate = service.hold(CHALLENGE)
        waiting = calls(manager.authenticate)
        gate.reached()
        waiting += calls(manager.authenticate, manager.get_token, manager.get_token)
        others_run()
        manager.close()
        assert results(waiting[1:]) == ["manager_closed"] * 3
        service.let_go()
        assert results(waiting) == ["manager_closed"] * 4
    """,
    "a close while an era is fetched": """
        manager.authenticate()
        gate = service.hold(CHALLENGE)
        service.era = 2
        manager.notify_era_change(2)
        gate.reached()
        waiting = callers(4)
        others_run()
        manager.close()
        assert results(waiting) == ["manager_closed"] * 4
        service.let_go()
    """,
}


@pytest.mark.parametrize("patch", PATCHED)
@pytest.mark.parametrize("case", PROGRAMS)
def test_among_greenlets(case: str, patch: str) -> None:
    programs.run(
        PROGRAMS[case], before=PATCHED[patch], prelude=PRELUDE, ending="service.let_go()\nmanager.close()\n"
    )

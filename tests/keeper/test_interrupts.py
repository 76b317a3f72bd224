"""Ctrl-C and signals while the main thread waits for a keeper."""

from __future__ import annotations

import pytest

from .support import programs

pytestmark = pytest.mark.process

INTERRUPT = """
def interrupt():
    until(lambda: ready())
    time.sleep(0.05)
    interrupted.append(time.monotonic())
    os.kill(os.getpid(), signal.SIGINT)

interrupted = []
keeper = Keeper(fleet(service, clock, 3))
"""
CHECK = """
try:
    {call}
    raise SystemExit("it was not interrupted")
except KeyboardInterrupt:
    assert time.monotonic() - interrupted[0] < 2.0
{then}
keeper.close()
print(time.monotonic(), flush=True)
"""

CALLS = {
    "start, the server away": (
        "service.fault = away(); ready = lambda: keeper.status().failures",
        "keeper.start()",
        "service.heal(); clock.now += 10; assert keeper[next(iter(keeper))].get_token()",
    ),
    "start, the server silent": (
        "service.hold(); ready = lambda: service.under_way",
        "keeper.start()",
        "service.let_go(); assert keeper[next(iter(keeper))].get_token()",
    ),
    "get_token without a limit": (
        "service.fault = away(); keeper.start(wait=False); ready = lambda: keeper.status().failures",
        "keeper[next(iter(keeper))].get_token(timeout=None)",
        "service.heal(); clock.now += 10; assert keeper[next(iter(keeper))].get_token()",
    ),
    "get_token with a limit": (
        "service.hold(); keeper.start(wait=False); ready = lambda: service.under_way",
        "keeper[next(iter(keeper))].get_token(timeout=15)",
        "service.let_go(); assert keeper[next(iter(keeper))].get_token()",
    ),
    "report_refused": (
        "keeper.start(); clock.now += 600; one = keeper[next(iter(keeper))]; service.hold(one.address); "
        "ready = lambda: service.under_way",
        "one.report_refused(one.get_token())",
        "service.let_go(); until(lambda: len(service.granted) == 4)",
    ),
}


@pytest.mark.parametrize("name", CALLS)
def test_ctrl_c_ends_the_wait_and_nothing_else(name: str) -> None:
    before, call, then = CALLS[name]
    program = [INTERRUPT, before, "threading.Thread(target=interrupt, daemon=True).start()"]
    programs.run("\n".join(program) + CHECK.format(call=call, then=then))

"""A program exits at once, with exit code 0 and without output, whatever its keeper is doing."""

from __future__ import annotations

import pytest

from .support import programs

pytestmark = pytest.mark.process

RUNS = 20
STATES = {
    "good": "keeper.start()",
    "logging in": "gate = service.hold(); keeper.start(wait=False); gate.reached()",
    "retrying": "service.fault = away(); keeper.start(wait=False); until(lambda: keeper.status().failures)",
    "renewing": "keeper.start(); gate = service.hold(); clock.now += LIFETIME / 1.4; gate.reached()",
    "waited for": "gate = service.hold(); keeper.start(wait=False); gate.reached()\n"
    "for one in keeper: begin_loop(lambda: keeper[one].get_token(timeout=None))",
    "asked all the time": "keeper.start()\nfor one in keeper: begin_loop(lambda: keeper[one].get_token())",
    "announcing": "keeper.start(); eras = iter(range(1, 10**9))\n"
    "begin_loop(lambda: keeper.notify_era_change(next(eras))); time.sleep(0.02)",
}
ENDS = {
    "falls off its end": "",
    "exits": "sys.exit(0)",
    "closes at exit": "import atexit; atexit.register(keeper.close)",
    "leaves the block": "keeper.__exit__(None, None, None)",
    "forgets it": "del keeper",
}


OFTEN = [("logging in", "falls off its end"), ("retrying", "falls off its end")]
IN_EVERY_WAY = ["logging in", "asked all the time"]
PAIRS = [
    (state, end)
    for state in STATES
    for end in ENDS
    if state in IN_EVERY_WAY or end in ("falls off its end", "closes at exit")
]


@pytest.mark.parametrize(("state", "end"), PAIRS)
def test_a_program_ends(state: str, end: str) -> None:
    runs = RUNS if (state, end) in OFTEN else 1
    said = "print(time.monotonic(), flush=True)"
    programs.run(
        "\n".join(["keeper = Keeper(fleet(service, clock, 3))", STATES[state], said, ENDS[end]]), runs=runs
    )


def test_an_event_at_the_end_of_the_interpreter() -> None:
    program = """
        def heard(event):
            time.sleep(0.01)
        keeper = Keeper(fleet(service, clock, 30), on_event=heard, at_once=8)
        keeper.start(wait=False)
        until(lambda: len(service.granted) > 3)
        print(time.monotonic(), flush=True)
    """
    programs.run(program, runs=5)

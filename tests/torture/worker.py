"""A warmed-up process that forks a child for every run. Started by `driver.py`, never imported.

Arguments: the address of the loopback server and either "jobs" (runs come in on standard input, one line
each; results go out the same way) or one run.
"""

from __future__ import annotations

import dataclasses
import faulthandler
import gc
import json
import os
import select
import signal
import sys
import tempfile
import time
from typing import Any

import _torture

from tests.shared.threads import native_threads

from . import bench as bench_module
from .exemptions import KEPT, STILLBORN
from .frames import without_frames
from .kinds import Mode, Run
from .scenarios import SCENARIOS, SPECIMENS

HANG = 40.0
MOST_SAID = 1 << 20
WARM_ROUNDS, ROUNDS, TIMES_GROWN = 2, 4, 3


def warm_up() -> None:
    """Loads all modules of the interpreter that a run loads, but not the component itself."""
    import base64  # noqa: F401
    import http.client  # noqa: F401
    import ipaddress  # noqa: F401
    import random  # noqa: F401
    import re  # noqa: F401
    import ssl
    import urllib.parse  # noqa: F401

    import tessaline._transport_security
    import tessaline.logging_style  # noqa: F401
    from canary import registry

    registry.at_rest = True  # it keeps what it plants
    ssl.get_default_verify_paths()
    _torture.begin(0, 0, 0, 0, 0)
    # A collection in a child would copy every page that the parent shares with it.
    gc.collect()
    gc.freeze()
    faulthandler.enable()
    _torture.watch_crashes()
    faulthandler.register(signal.SIGUSR1, all_threads=True)
    os.environ.pop("LD_PRELOAD", None)


def live(run: Run, address: str, complaints: bench_module.Complaints) -> dict[str, Any]:
    """One run; its result."""
    if run.scenario != "import":
        from tessaline import auth

        auth._time = bench_module.fast_time()  # type: ignore[assignment]
    scenario = {**SCENARIOS, **SPECIMENS}[run.scenario](address)
    scenario.prepare()
    outcome, problems = "success", []
    _torture.begin(*run.plan())
    try:
        _torture.armed(scenario.act)
    except BaseException as error:
        outcome = type(error).__name__
        if not scenario.allows(run.kind, error):
            problems.append(f"ended with {error!r}")
        error.__traceback__ = None
        del error
    if run.scenario in ("refresh-thread", "era-thread", "thread-bootstrap"):
        # Their failures happen while the conclusion is awaited.
        problems += scenario.conclude()
        seen, failed, no_such_way, what = _torture.end()
    else:
        seen, failed, no_such_way, what = _torture.end()
        problems += scenario.conclude()
    if scenario.lets_go:
        problems += scenario.bench.discard()
    problems += complaints.texts
    complaints.texts.clear()
    return {
        "outcome": outcome,
        "problems": problems,
        "seen": seen,
        "failed": failed,
        "no_such_way": no_such_way,
        "what": what,
    }


def grown(before: tuple[Any, ...], after: tuple[Any, ...]) -> list[str]:
    names = ("Python blocks", "blocks of the module", "descriptors")
    return [
        f"{now - then} {name} more after {ROUNDS} rounds"
        for name, then, now in zip(names, before, after, strict=True)
        if now - then >= ROUNDS
    ]


def count_all() -> tuple[int, int, int]:
    bench_module.until(lambda: native_threads() == 1)
    gc.collect()
    python, module = _torture.live()
    return python, module, len(os.listdir("/proc/self/fd"))


def make(run: Run, address: str) -> dict[str, Any]:
    complaints = bench_module.Complaints()
    if run.mode is not Mode.LEAK:
        result = live(run, address, complaints)
        left = bench_module.left_behind()
        if any(STILLBORN.search(problem) for problem in left):
            # Such a thread refers to its work.
            result["problems"] = [text for text in result["problems"] if not KEPT.search(text)]
        result["problems"] += left
        return result
    # Complete runs first: an incomplete one leaves first-time initialisations to the next.
    spared = dataclasses.replace(run, number=0)
    for warm in (spared, spared, *[run] * WARM_ROUNDS):
        result = live(warm, address, complaints)
        result["problems"].clear()
    # Over the network the n-th call varies: what only came late does not come again.
    for _ in range(TIMES_GROWN):
        before = count_all()
        for _ in range(ROUNDS):
            result = live(run, address, complaints)
            result["problems"].clear()
        result["problems"] = grown(before, count_all())
        if not result["problems"]:
            break
    return result


def in_child(run: Run, address: str) -> dict[str, Any]:
    """The run's result; or how its process ended without one."""
    read_end, write_end = os.pipe()
    with tempfile.TemporaryFile() as errors:
        child = os.fork()
        if child == 0:
            os.close(read_end)
            os.dup2(errors.fileno(), 2)
            os.write(write_end, json.dumps(make(run, address)).encode())
            _torture.leave()
        os.close(write_end)
        text, hung = collect(read_end, child)
        status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
        errors.seek(0)
        said = errors.read(MOST_SAID).decode(errors="replace")
    if hung:
        return {"outcome": "hang", "problems": ["it hangs"], "said": said}
    if status != 0 or not text:
        return {"outcome": f"exit {status}", "problems": [f"the process ended with {status}"], "said": said}
    result = json.loads(text)
    result["said"] = said
    if without_frames(said):
        result["problems"].append("standard error: " + without_frames(said))
    return result


def collect(read_end: int, child: int) -> tuple[bytes, bool]:
    end = time.monotonic() + HANG
    parts: list[Any] = []
    with open(read_end, "rb", buffering=0) as pipe:
        while True:
            ready, _, _ = select.select([pipe], [], [], max(0.0, end - time.monotonic()))
            if not ready:
                os.kill(child, signal.SIGUSR1)
                time.sleep(0.5)
                os.kill(child, signal.SIGKILL)
                return b"", True
            part = pipe.read(65536)
            if not part:
                return b"".join(parts), False
            parts.append(part)


def main() -> None:
    address, task = sys.argv[1:]
    warm_up()
    if task != "jobs":
        print(json.dumps(in_child(Run.parse(task), address), indent=2))
        return
    offered = {name: [scenario.repeats, *scenario.kinds] for name, scenario in SCENARIOS.items()}
    print(json.dumps(offered), flush=True)
    for line in sys.stdin:
        result = in_child(Run.parse(line.strip()), address)
        print(json.dumps(result), flush=True)


if __name__ == "__main__":
    main()

"""Makes one measurement of the network benchmarks and prints it as a JSON object.

    python -m benchmarks.network_worker (first | connections) CLIENT URL
    python -m benchmarks.network_worker (one-by-one | at-once | memory) CLIENT ERRAND

CLIENT is a name in `network_getters` or `network_logins`, ERRAND the latter's `Errand` in JSON. Run in a
process of its own, with SSL_CERT_FILE and perhaps SSL_CERT_DIR set. Times are in seconds, memory is in bytes.
"""

from __future__ import annotations

import sys
import time

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Sequence

    from .network_logins import Call, Errand

CONNECTIONS = 30
PATIENCE = 120.0


def first(client: str, url: str) -> dict[str, float]:
    """The whole request, with the imports that it needs; this module has imported none of them."""
    begin = time.process_time()
    from .network_getters import GETTERS

    GETTERS[client](url)()
    return {"cpu": time.process_time() - begin}


def connections(client: str, url: str) -> dict[str, float]:
    from .network_getters import connections_cpu

    return {"cpu": connections_cpu(client, url, CONNECTIONS) / CONNECTIONS}


def one_by_one(calls: Sequence[Call]) -> dict[str, float]:
    begin, cpu = time.perf_counter(), time.process_time()
    for call in calls:
        call()
    return {"wall": time.perf_counter() - begin, "cpu": time.process_time() - cpu}


def at_once(calls: Sequence[Call]) -> dict[str, float]:
    """Each on its own thread, from a common start until the last has ended."""
    import threading

    barrier = threading.Barrier(len(calls) + 1)
    ended: list[float] = []

    def run(call: Call) -> None:
        barrier.wait(PATIENCE)
        call()
        ended.append(time.perf_counter())

    threads = [threading.Thread(target=run, args=(call,), daemon=True) for call in calls]
    for thread in threads:
        thread.start()
    begin, cpu = time.perf_counter(), time.process_time()
    barrier.wait(PATIENCE)
    for thread in threads:
        thread.join(max(0.0, begin + PATIENCE - time.perf_counter()))
    spent = time.process_time() - cpu
    assert len(ended) == len(calls), "some failed, or still run"
    return {"wall": max(ended) - begin, "cpu": spent}


def warm(
    measure: Callable[[Sequence[Call]], dict[str, float]], client: str, errand: Errand
) -> dict[str, float]:
    """In a process that has connected to another server before."""
    from .network_logins import LOGINS

    prepare = LOGINS[client](errand)
    prepare(errand.warm_up)()
    return measure([prepare(base) for base in errand.bases])


def of_this_process(field: str) -> int:
    with open("/proc/self/status") as lines:
        return next(int(line.split()[1]) * 1024 for line in lines if line.startswith(field + ":"))


def memory(client: str, errand: Errand) -> dict[str, float]:
    """The growth of a process that has imported the client and not used it yet.

    The first login loads the client's libraries: "burst" is the growth after it.
    """
    import gc
    import importlib

    from .network_logins import LOGINS, MODULES

    importlib.import_module(MODULES[client])
    gc.collect()
    with open("/proc/self/clear_refs", "w") as marks:
        marks.write("5")  # resets the peak
    before = of_this_process("VmRSS")
    prepare = LOGINS[client](errand)
    prepare(errand.warm_up)()
    loaded = of_this_process("VmRSS")
    at_once([prepare(base) for base in errand.bases])
    gc.collect()
    after = of_this_process("VmRSS")
    return {"grown": after - before, "burst": after - loaded, "peak": of_this_process("VmHWM") - before}


def measured(case: str, client: str, argument: str) -> dict[str, float]:
    if case == "first":
        return first(client, argument)
    if case == "connections":
        return connections(client, argument)
    import json

    from .network_logins import Errand

    errand = Errand(**json.loads(argument))
    if case == "memory":
        return memory(client, errand)
    return warm({"one-by-one": one_by_one, "at-once": at_once}[case], client, errand)


def main() -> None:
    result = measured(*sys.argv[1:])
    import json

    print(json.dumps(result))


if __name__ == "__main__":
    main()

"""Imports the modules named as arguments, then the component, and prints the seconds of the latter.

The second line lists the modules of Python that it has loaded. Run it in a separate process.
"""

import importlib
import os
import sys
import threading
import time

SOCKETS = "/proc/self/fd"


def open_sockets() -> list[str]:
    numbers = [f"{SOCKETS}/{number}" for number in os.listdir(SOCKETS)]
    return [number for number in numbers if os.path.exists(number) and "socket:" in os.readlink(number)]


def main() -> None:
    for name in sys.argv[1:]:
        importlib.import_module(name)
    before = set(sys.modules)
    begin = time.perf_counter()
    importlib.import_module("tessaline.auth")
    print(time.perf_counter() - begin)
    print(*sorted(name for name in set(sys.modules) - before if not name.startswith("tessaline")))
    assert threading.active_count() == 1
    assert open_sockets() == []


if __name__ == "__main__":
    main()

"""A burst leaves connections open for half a minute, and then nothing: no descriptor, no thread."""

from __future__ import annotations

import json
import os
import subprocess
import sys

import pytest

from devserver.testing import DevServer

pytestmark = pytest.mark.skipif(
    os.environ.get("CI") != "true" and not os.environ.get("TESSALINE_SLOW_TESTS"),
    reason="waits for more than 30 seconds: runs with CI=true or TESSALINE_SLOW_TESTS=1",
)

PROGRAM = """
import json, os, sys, threading, time
from tessaline import auth

def ask():
    assert auth._default_http_transport("GET", sys.argv[1] + "/_echo/held")[0] == 200

def count(folder):
    return len(os.listdir("/proc/self/" + folder))

def gone(limit):
    while time.monotonic() < limit and (count("fd") > descriptors + 2 or count("task") > 1):
        time.sleep(0.1)
    return count("fd") - descriptors, count("task")

# Libraries stay loaded, with their descriptors.
import ssl
descriptors = count("fd")
threads = [threading.Thread(target=ask) for _ in range(64)]
for thread in threads:
    thread.start()
for thread in threads:
    thread.join(60)
after = count("fd") - descriptors
print(json.dumps([after, *gone(time.monotonic() + 35)]))
"""


def test_a_burst_leaves_nothing_behind(https_server: DevServer) -> None:
    assert https_server.ca_file is not None
    https_server.reset()
    https_server.faults("/_echo/held", [{"kind": "hold", "times": None}])
    child = subprocess.Popen(
        [sys.executable, "-P", "-c", PROGRAM, https_server.url],
        stdout=subprocess.PIPE,
        env=os.environ | {"SSL_CERT_FILE": https_server.ca_file},
        text=True,
    )
    try:
        https_server.wait_for("/_echo/held", 64, timeout=60)
        https_server.release()
        output, _ = child.communicate(timeout=120)
    finally:
        child.kill()
        child.wait(60)
    open_after, left, threads = json.loads(output)
    assert open_after >= 32
    assert left <= 2
    assert threads == 1

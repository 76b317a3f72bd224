"""However a request ends, it leaks no native memory."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import pytest

pytestmark = pytest.mark.process

ROOT = Path(__file__).resolve().parents[2]

PROGRAM = """
import contextlib, gc, http.client, socket, struct, sys, threading
from tests.leakhunt.gauges import native_bytes
from tessaline import auth

def serve(listener, answer):
    while True:
        connection, _ = listener.accept()
        with connection, contextlib.suppress(OSError):
            connection.recv(10_000)
            if answer == "reset":
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            else:
                connection.sendall(answer.encode())

def left_by(requests, url):
    gc.collect()
    before = native_bytes()
    for _ in range(requests):
        with contextlib.suppress(OSError, http.client.HTTPException):
            auth._default_http_transport("POST", url, {"Accept": "*/*"}, b"body")
    gc.collect()
    return native_bytes() - before

listener = socket.create_server(("127.0.0.1", 0))
threading.Thread(target=serve, args=(listener, sys.argv[1]), daemon=True).start()
url = f"http://127.0.0.1:{listener.getsockname()[1]}/x"
left_by(20, url)
print(left_by(200, url))
"""

CLOSE = "Connection: close\r\n"
EMPTY = "Content-Length: 0\r\n\r\n"
ANSWERS = {
    "answered": f"HTTP/1.1 200 OK\r\n{CLOSE}Content-Length: 2\r\n\r\nok",
    "chunked": f"HTTP/1.1 200 OK\r\n{CLOSE}Transfer-Encoding: chunked\r\n\r\n2\r\nok\r\n0\r\n\r\n",
    "refused": f"HTTP/1.1 503 Busy\r\n{CLOSE}Retry-After: 3\r\n{EMPTY}",
    "redirected in a circle": f"HTTP/1.1 307 On\r\n{CLOSE}Location: /x\r\n{EMPTY}",
    "not answered": "",
    "reset": "reset",
    "cut off": "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nok",
    "answered in another language": "220 ready\r\n",
    "answered with too long a line": "HTTP/1.1 200 OK\r\nX: " + "x" * 120_000,
}


@pytest.mark.parametrize("how", ANSWERS)
def test_a_request_leaves_no_native_memory_behind(how: str) -> None:
    done = subprocess.run(
        [sys.executable, "-c", PROGRAM, ANSWERS[how]],
        cwd=ROOT,
        env=os.environ | {"GLIBC_TUNABLES": "glibc.malloc.tcache_count=0"},
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert (done.returncode, done.stderr) == (0, "")
    # A leak per request would be at least the smallest chunk, 32 bytes.
    assert int(done.stdout) < 32 * 200 // 2

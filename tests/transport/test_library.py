"""The HTTP library is loaded at the first request; if it cannot be, each request raises an error."""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from tessaline import auth
from tests.sanitized import patience
from tests.shared.threads import until

SECONDS = patience(20.0)
PACKAGE = Path(auth.__file__).parent
LIBRARY = "libtessaline_http.so"

# A library that takes as long to load as a pipe has no writer.
SLOW = r"""
#include <fcntl.h>
#include <unistd.h>
__attribute__((constructor)) static void wait(void) { close(open(FIFO, O_RDONLY)); }
"""

FORKING = """
import os, signal, sys, threading, warnings
warnings.simplefilter("ignore", DeprecationWarning)
from tessaline import auth
import ssl  # which the request imports: a fork would wait for the end of that
url = "http://127.0.0.1:" + sys.argv[1] + "/"
def ask():
    try:
        auth._default_http_transport("GET", url)
    except ConnectionRefusedError:
        pass
first = threading.Thread(target=ask)
first.start()
sys.stdin.readline()
os.register_at_fork(before=lambda: print("forking", flush=True))
child = os.fork()
signal.alarm(20)
ask()
if child:
    first.join()
    assert os.waitpid(child, 0)[1] == 0
"""

PROGRAM = """
import json, os, shutil, sys
from tessaline import auth
port, found, place = sys.argv[1:]
told = []
def ask():
    try:
        auth._default_http_transport("GET", "http://127.0.0.1:" + port + "/")
    except Exception as error:
        told.append([type(error).__name__, str(error)])
ask(), ask()
shutil.copy(found, place + ".new")
os.replace(place + ".new", place)
ask()
print(json.dumps(told))
"""


@pytest.fixture
def package(tmp_path: Path) -> Path:
    """The package without that library."""
    ignored = shutil.ignore_patterns(LIBRARY, "__pycache__")
    return shutil.copytree(PACKAGE, tmp_path / "tessaline", ignore=ignored)


def told(package: Path, port: int) -> list[list[str]]:
    """The errors of two requests, and the result of a third one after the library was restored."""
    done = subprocess.run(
        [sys.executable, "-c", PROGRAM, str(port), PACKAGE / LIBRARY, package / LIBRARY],
        env={**os.environ, "PYTHONPATH": str(package.parent)},
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert (done.returncode, done.stderr) == (0, "")
    return json.loads(done.stdout)


def test_a_missing_library_is_loaded_once_it_is_there(package: Path, unused_port: int) -> None:
    *missing, later = told(package, unused_port)
    assert [name for name, _ in missing] == ["OSError", "OSError"]
    assert all("cannot be loaded" in text and LIBRARY in text for _, text in missing)
    assert later[0] == "ConnectionRefusedError"


def test_another_library_in_its_place_is_an_error(package: Path, unused_port: int) -> None:
    shutil.copy(auth.__file__, package / LIBRARY)
    first, second, _ = told(package, unused_port)
    assert first == second
    assert first[0] == "OSError"
    assert "cannot be loaded" in first[1]


def test_a_fork_while_it_is_loaded_leaves_the_child_no_lock(
    package: Path, unused_port: int, tmp_path: Path
) -> None:
    fifo, source = tmp_path / "fifo", tmp_path / "slow.c"
    os.mkfifo(fifo)
    source.write_text(SLOW)
    found = ["-Wl,--no-as-needed", "-L", str(PACKAGE), f"-l:{LIBRARY}", f"-Wl,-rpath,{PACKAGE}"]
    place = str(package / LIBRARY)
    compiler = os.environ.get("CXX", "g++")
    command = [compiler, "-x", "c", "-shared", "-fPIC", f'-DFIFO="{fifo}"', str(source), "-o", place, *found]
    subprocess.run(command, check=True, timeout=60)
    with subprocess.Popen(
        [sys.executable, "-c", FORKING, str(unused_port)],
        env={**os.environ, "PYTHONPATH": str(package.parent)},
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        text=True,
    ) as program:
        assert program.stdin is not None
        assert program.stdout is not None
        try:
            writer = until(lambda: reader_of(fifo), "the library being loaded")
            program.stdin.write("\n")
            program.stdin.flush()
            assert program.stdout.readline() == "forking\n"
            # The fork waits for the library, now or soon.
            os.close(writer)
            assert program.wait(SECONDS) == 0
        finally:
            program.kill()


def reader_of(fifo: Path) -> int | None:
    """Its other end, once this one has a waiting reader."""
    try:
        return os.open(fifo, os.O_WRONLY | os.O_NONBLOCK)
    except OSError:
        return None

"""Third-party servers, each a process with its own folder and ports on the loopback."""

from __future__ import annotations

import contextlib
import os
import random
import shutil
import signal
import socket
import subprocess
import tempfile
from collections.abc import Iterator, Mapping, Sequence
from pathlib import Path

from tests.shared.threads import until

START = 20.0
END = 5.0
# Debian's folder for servers, which is not on the PATH of other users than root.
SEARCH_PATH = os.pathsep.join([os.environ.get("PATH", os.defpath), "/usr/sbin", "/sbin"])
# Below the ports that the system assigns to clients, so that no client takes one meanwhile.
PORTS = range(20_000, 32_000)


def free_ports(count: int) -> list[int]:
    """Different free ports of 127.0.0.1."""
    found: list[int] = []
    for port in random.SystemRandom().sample(PORTS, len(PORTS)):
        with socket.socket() as probe, contextlib.suppress(OSError):
            probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            probe.bind(("127.0.0.1", port))
            found.append(port)
        if len(found) == count:
            return found
    raise AssertionError("no free ports")


@contextlib.contextmanager
def own_folder() -> Iterator[Path]:
    """A folder that a server without privileges can use; it is removed afterwards."""
    folder = Path(tempfile.mkdtemp(prefix="tessaline-real-"))
    try:
        folder.chmod(0o755)
        if os.geteuid() == 0:
            shutil.chown(folder, "nobody", "nogroup")
        yield folder
    finally:
        shutil.rmtree(folder, ignore_errors=True)


@contextlib.contextmanager
def running(
    command: Sequence[str | Path],
    folder: Path,
    ports: Sequence[int],
    *,
    environment: Mapping[str, str] | None = None,
    unprivileged: bool = True,
    gently: bool = False,
) -> Iterator[subprocess.Popen[bytes]]:
    """Start the program in `folder`, wait until it listens at all `ports`, and end it with the block.

    environment: variables besides those of the tests. unprivileged: as `nobody` if the tests run as root.
    gently: let it clean up at its end, because it would leave files outside its folder.
    """
    guarded = ["setpriv", "--pdeathsig", "KILL"]
    if unprivileged and os.geteuid() == 0:
        guarded += ["--reuid", "nobody", "--regid", "nogroup", "--clear-groups"]
    own = {name: value for name, value in os.environ.items() if not name.lower().endswith("_proxy")}
    with (folder / "output").open("wb") as output:
        process = subprocess.Popen(
            [*guarded, "--", *map(str, command)],
            cwd=folder,
            env=own | {"PATH": SEARCH_PATH} | dict(environment or {}),
            stdin=subprocess.DEVNULL,
            stdout=output,
            stderr=subprocess.STDOUT,
            start_new_session=True,
        )
    try:
        _wait_until_it_listens(process, ports, folder / "output")
        yield process
    finally:
        if gently:
            process.terminate()
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(END)
        _kill(process)


def _wait_until_it_listens(process: subprocess.Popen[bytes], ports: Sequence[int], output: Path) -> None:
    for port in ports:
        until(lambda: process.poll() is not None or listens(port), f"listening at {port}", START)  # noqa: B023
    if process.poll() is not None:
        said = output.read_text(errors="replace")[-2000:]
        raise AssertionError(f"{process.args!r} ended with {process.returncode}: {said}")


def listens(port: int) -> bool:
    """Whether something accepts a connection at that port of 127.0.0.1."""
    with socket.socket() as probe:
        probe.settimeout(1.0)
        return probe.connect_ex(("127.0.0.1", port)) == 0


def _kill(process: subprocess.Popen[bytes]) -> None:
    # All its child processes are in its group.
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGKILL)
    process.wait(END)

"""Runs a user's program where nothing but the wheel is installed: program.py, over TLS.

python -m tools.wheels.login PYTHON...

PYTHON: as in `/venv/bin/python`, or `chroot /system /venv/bin/python`.
"""

from __future__ import annotations

import json
import os
import subprocess
import sys
from collections.abc import Callable, Mapping, Sequence
from pathlib import Path
from typing import NamedTuple

from devserver.testing import DevServer

PROGRAM = Path(__file__).with_name("program.py")
# One by a call, a renewal, an era's.
LOGINS = 3
DEADLINE = 300.0


class LoginError(Exception):
    """The program has not behaved as expected."""


class Facts(NamedTuple):
    python: str
    libc: str


def run(python: Sequence[str], url: str, environment: Mapping[str, str]) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [*python, "-I", "-c", PROGRAM.read_text(), url],
        env=os.environ | environment,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=DEADLINE,
    )


def log_in(python: Sequence[str], trust: Callable[[Path], Mapping[str, str]]) -> Facts:
    """trust: makes that CA file trusted; returns environment variables for it.

    Before that, the program must not be able to log in.
    """
    with DevServer(tls=True) as server:
        assert server.ca_file is not None
        done = run(python, server.url, {})
        if done.returncode == 0 or "SSLCertVerificationError" not in done.stderr:
            raise LoginError(f"logs in where nobody trusts the server, or fails otherwise: {done.stderr}")
        server.reset()
        done = run(python, server.url, trust(Path(server.ca_file)))
        if done.returncode != 0:
            raise LoginError(done.stderr)
        logins = server.state()["counts"].get("verify", 0)
    bundled, version, libc = json.loads(done.stdout)
    if not bundled or logins != LOGINS:
        raise LoginError(f"bundled libraries: {bundled}; logins: {logins}")
    return Facts(version, libc)


def by_environment(authority: Path) -> Mapping[str, str]:
    return {"SSL_CERT_FILE": str(authority)}


def main(python: list[str]) -> int:
    try:
        facts = log_in(python, by_environment)
    except LoginError as error:
        print(error, file=sys.stderr)
        return 1
    print(f"logged in over TLS and renewed with nothing but the wheel: CPython {facts.python}, {facts.libc}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

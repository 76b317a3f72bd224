"""Logs in over TLS, and once more, where there is nothing but the wheel.

python -m tools.wheels.login PYTHON... (as in `/venv/bin/python`, or `chroot /system /venv/bin/python`)
"""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path

from devserver.testing import DevServer

PROGRAM = """
import json, os, secrets, sys, tempfile
from tessaline import _native
from tessaline.auth import AuthManager
url, authority = sys.argv[1:]
manager = AuthManager(secrets.token_hex(32), url)
with tempfile.NamedTemporaryFile("w", suffix=".pem") as file, manager:
    file.write(authority)
    file.flush()
    os.environ["SSL_CERT_FILE"] = file.name
    for _ in range(2):
        manager.authenticate()
        assert manager.get_token()
print(json.dumps([_native.bundled, sys.version.split()[0], os.confstr("CS_GNU_LIBC_VERSION")]))
"""


def main(python: list[str]) -> int:
    with DevServer(tls=True) as server:
        assert server.ca_file is not None
        done = subprocess.run(
            [*python, "-I", "-c", PROGRAM, server.url, Path(server.ca_file).read_text()],
            stdout=subprocess.PIPE,
            text=True,
            timeout=60,
        )
        logins = server.state()["counts"].get("verify", 0)
    if done.returncode != 0:
        return done.returncode
    bundled, version, libc = json.loads(done.stdout)
    if not bundled or logins != 2:
        print(f"bundled libraries: {bundled}; logins: {logins}", file=sys.stderr)
        return 1
    print(f"logged in twice over TLS with nothing but the wheel: CPython {version}, {libc}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

"""Logs in over TLS from an environment that holds nothing but the wheel.

python -m tools.wheels.login PYTHON_OF_THAT_ENVIRONMENT
"""

from __future__ import annotations

import json
import os
import subprocess
import sys

from devserver.testing import DevServer

from .opened_libraries import strangers

PROGRAM = """
import json, secrets, sys
from tessaline.auth import AuthManager
with AuthManager(secrets.token_hex(32), sys.argv[1]) as manager:
    manager.authenticate()
    served = manager.get_token() is not None
print(json.dumps([served, sys.prefix, sys.base_prefix, open("/proc/self/maps").read()]))
"""


def main(python: str) -> int:
    with DevServer(tls=True) as server:
        assert server.ca_file is not None
        done = subprocess.run(
            [python, "-I", "-c", PROGRAM, server.url],
            env=os.environ | {"SSL_CERT_FILE": server.ca_file},
            stdout=subprocess.PIPE,
            text=True,
            timeout=60,
        )
        logins = server.state()["counts"].get("verify", 0)
    if done.returncode != 0:
        return done.returncode
    served, prefix, base_prefix, maps = json.loads(done.stdout)
    found = strangers(maps, prefix, base_prefix)
    if found or not served or logins != 1:
        print(f"token served: {served}; logins: {logins}; libraries of others: {found}", file=sys.stderr)
        return 1
    print("an environment with nothing but the wheel has logged in over TLS with the wheel's own libraries")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))

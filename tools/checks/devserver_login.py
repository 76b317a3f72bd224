"""Logs in over TLS to a development server that is installed in another environment.

python -m tools.checks.devserver_login COMMAND
"""

import json
import os
import secrets
import subprocess
import sys

import devserver
from tessaline.auth import AuthManager

SECONDS = 20


def main(command: str) -> int:
    version = subprocess.run(
        [command, "--version"], capture_output=True, check=True, text=True, timeout=SECONDS
    )
    told = version.stdout.strip()
    if told != f"tessaline-devserver {devserver.__version__}":
        print(f"{command} is {told!r}", file=sys.stderr)
        return 1
    started = [command, "--tls", "--exit-with-stdin", "--fault=verify=503", "--access-log"]
    with subprocess.Popen(
        started, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
    ) as process:
        assert process.stdout is not None
        announced = json.loads(process.stdout.readline())
        os.environ["SSL_CERT_FILE"] = announced["ca_file"]
        with AuthManager(secrets.token_hex(32), announced["url"]) as manager:
            manager.authenticate()
            assert manager.get_token()
        log = process.communicate(timeout=SECONDS)[1]
    logins = log.count("POST /auth/verify 200")
    if process.returncode != 0 or logins != 1 or log.count("POST /auth/verify 503") != 1:
        print(f"ended with {process.returncode}; its log:\n{log}", file=sys.stderr)
        return 1
    print(f"logged in over TLS at {told}, past a fault of its command line")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))

"""The system's nginx on the loopback, which logs one wallet in with prepared responses, over TLS 1.3.

One worker process. By default, tickets are on and connections are kept.
"""

from __future__ import annotations

import json
import os
import pwd
import shutil
import socket
import subprocess
import tempfile
import time
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass
from pathlib import Path

import jwt
from eth_account import Account

from .network_trust import Trust
from .places import KEY, VERIFY

PATIENCE = 10.0
CHALLENGE_ANSWER = '{"challenge_id": "c", "message": "Sign in to the benchmark, nonce 0123456789abcdef"}'

_MAIN = """
daemon off;
worker_processes 1;
pid {folder}/pid;
events {{ worker_connections 8192; }}
http {{
  log_format connections '$connection $ssl_session_reused $request_uri';
  access_log {folder}/access.log connections;
  client_body_temp_path {folder}/client;
  proxy_temp_path {folder}/proxy;
  fastcgi_temp_path {folder}/fastcgi;
  uwsgi_temp_path {folder}/uwsgi;
  scgi_temp_path {folder}/scgi;
  default_type application/json;
  keepalive_requests 1000000;
  ssl_protocols TLSv1.3;
  ssl_certificate {chain};
  ssl_certificate_key {key};
  ssl_session_cache off;
  server {{
    {listens}
    keepalive_timeout {kept};
    ssl_session_tickets {tickets};
    location ~ {verify}$ {{ return 200 '{verified}'; }}
    location / {{ return 200 '{challenge}'; }}
  }}
}}
"""


def verified_answer() -> str:
    """The response of verify for the wallet of the benchmarks."""
    token = jwt.encode({"sub": Account.from_key(KEY).address}, "x" * 32)
    return json.dumps({"token": token, "expires_at": 4102444800, "wallet_secret": "c2VjcmV0"})


@dataclass(frozen=True)
class Nginx:
    """A running nginx: one origin for each of its ports."""

    origins: tuple[str, ...]
    log: Path

    def connections(self, path: str, requests: int) -> tuple[int, int]:
        """How many connections had requests to paths with this prefix, and how many of them were resumed.

        nginx logs a line after it has sent the response, so this waits for some.
        """
        deadline = time.monotonic() + PATIENCE
        while True:
            lines = [line.split() for line in self.log.read_text().splitlines()]
            logged = [line for line in lines if line[2].startswith(path)]
            if len(logged) >= requests:
                break
            assert time.monotonic() < deadline, f"{len(logged)} of {requests} requests in the log"
            time.sleep(0.01)
        return len({line[0] for line in logged}), len({line[0] for line in logged if line[1] == "r"})


def _free_ports(count: int) -> list[int]:
    with ExitStack() as stack:
        sockets = [stack.enter_context(socket.socket()) for _ in range(count)]
        for one in sockets:
            one.bind(("127.0.0.1", 0))
        return [one.getsockname()[1] for one in sockets]


def _program() -> str:
    found = shutil.which("nginx", path=os.environ.get("PATH", os.defpath) + os.pathsep + "/usr/sbin")
    assert found is not None, "nginx is not installed"
    return found


def _start(folder: Path, configuration: str) -> subprocess.Popen[bytes]:
    path = folder / "nginx.conf"
    path.write_text(configuration)
    # Root's workers would become another user, which cannot access the folder.
    user = f"user {pwd.getpwuid(0).pw_name};" if os.geteuid() == 0 else ""
    errors = folder / "error.log"
    command = [_program(), "-p", str(folder), "-c", str(path), "-e", str(errors)]
    command += ["-g", f"{user} error_log {errors} warn;"]
    return subprocess.Popen(command, stdin=subprocess.DEVNULL)


def _answers(process: subprocess.Popen[bytes], port: int) -> bool:
    deadline = time.monotonic() + PATIENCE
    while process.poll() is None and time.monotonic() < deadline:
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return True
        except ConnectionRefusedError:
            time.sleep(0.01)
    return False


def _end(process: subprocess.Popen[bytes]) -> None:
    process.terminate()
    try:
        process.wait(timeout=PATIENCE)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait(timeout=PATIENCE)


@contextmanager
def running_nginx(
    trust: Trust, origins: int = 1, *, kept: bool = True, tickets: bool = True
) -> Iterator[Nginx]:
    """nginx that listens on as many ports.

    Args:
        trust: Its certificate.
        origins: Number of ports.
        kept: Whether a connection serves more than one request.
        tickets: Whether a session may be resumed.
    """
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        # Another program may take a port before nginx does.
        for _ in range(3):
            ports = _free_ports(origins)
            configuration = _MAIN.format(
                folder=folder,
                chain=trust.chain,
                key=trust.key,
                listens="\n    ".join(f"listen 127.0.0.1:{port} ssl backlog=4096;" for port in ports),
                kept="300s" if kept else "0",
                tickets="on" if tickets else "off",
                verify=VERIFY,
                verified=verified_answer(),
                challenge=CHALLENGE_ANSWER,
            )
            process = _start(folder, configuration)
            try:
                if _answers(process, ports[-1]):
                    yield Nginx(tuple(f"https://127.0.0.1:{port}" for port in ports), folder / "access.log")
                    return
            finally:
                _end(process)
        raise RuntimeError("nginx does not start: " + (folder / "error.log").read_text()[-2000:])

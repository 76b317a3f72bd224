"""The development server for tests: a subprocess that is started, controlled and stopped with deadlines."""

import contextlib
import http.client
import json
import os
import select
import ssl
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterable, Mapping, Sequence
from pathlib import Path
from types import TracebackType
from typing import IO, Any, Self
from urllib.parse import urlsplit

_ROOT = Path(__file__).resolve().parent.parent
# How much slower programs run here, such as under an emulator.
_SLOWER = float(os.environ.get("DEVSERVER_SLOWER", "1"))
_START_SECONDS = 20.0 * _SLOWER
_CONTROL_SECONDS = 10.0 * _SLOWER
_STOP_SECONDS = 4.0 * _SLOWER


class DevServerError(Exception):
    """The server did not start, has ended, or rejected a control request."""


class DevServer:
    """``python -m devserver`` in a subprocess of this interpreter; a context manager.

    tls: serve HTTPS. tls_names: names in the certificate, by default those of the loopback.
    gate: also listen on a second port, whose connections get the faults of the endpoint "connect".
    invite_only, invites, claims: see ``python -m devserver --help``. era: None for tokens without an era.
    options: further command-line options. start_timeout: seconds that the start may take.
    keep_control: keep one connection for control requests; for one thread at a time.

    Attributes: url and gate_url (without a trailing slash), ca_file (path of the CA certificate to trust,
    None without TLS), pid, port, returncode, stderr.
    """

    def __init__(
        self,
        *,
        tls: bool = False,
        tls_names: Sequence[str] = (),
        gate: bool = False,
        invite_only: bool = False,
        invites: Iterable[str] = (),
        era: int | None = 1,
        claims: Mapping[str, Any] | None = None,
        options: Sequence[str] = (),
        start_timeout: float = _START_SECONDS,
        keep_control: bool = False,
    ) -> None:
        self._arguments = ["--exit-with-stdin", f"--era={'none' if era is None else era}"]
        self._arguments += ["--tls"] if tls else []
        self._arguments += [f"--tls-name={name}" for name in tls_names]
        self._arguments += ["--invite-only"] if invite_only else []
        self._arguments += [f"--invite={code}" for code in invites]
        self._arguments += [f"--claims={json.dumps(claims)}"] if claims else []
        self._arguments += ["--gate"] if gate else []
        self._arguments += options
        self._start_timeout = start_timeout
        self._keep_control = keep_control
        self._kept: http.client.HTTPConnection | None = None
        self._process: subprocess.Popen[bytes] | None = None
        self._stderr: IO[bytes] | None = None
        self._stderr_text = ""
        self._url: str | None = None
        self.gate_url: str | None = None
        self.ca_file: str | None = None
        self.pid: int | None = None

    def __enter__(self) -> Self:
        self.start()
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.stop()

    @property
    def url(self) -> str:
        """The base URL of the service, without a trailing slash."""
        if self._url is None:
            raise DevServerError("the server has not been started")
        return self._url

    @property
    def port(self) -> int:
        """The port that the service listens on."""
        port = urlsplit(self.url).port
        assert port is not None
        return port

    @property
    def returncode(self) -> int | None:
        """The exit code of the ended server, None while it runs or before its start."""
        return None if self._process is None else self._process.poll()

    @property
    def stderr(self) -> str:
        """What the server has written to standard error."""
        if self._stderr is not None:
            self._stderr_text = os.pread(self._stderr.fileno(), 1 << 20, 0).decode(errors="replace")
        return self._stderr_text

    def start(self) -> None:
        """Start the server and wait until it listens; DevServerError says why it failed."""
        search_path = [str(_ROOT), *filter(None, [os.environ.get("PYTHONPATH")])]
        self._stderr = tempfile.TemporaryFile()  # noqa: SIM115
        self._process = subprocess.Popen(
            [sys.executable, "-P", "-m", "devserver", *self._arguments],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=self._stderr,
            env=os.environ | {"PYTHONPATH": os.pathsep.join(search_path)},
        )
        try:
            announced = json.loads(self._read_line())
            self._url, self.gate_url = announced["url"], announced.get("gate_url")
            self.ca_file, self.pid = announced["ca_file"], announced["pid"]
        except BaseException:
            self.stop()
            raise

    def stop(self) -> None:
        """Stop the server, and kill it if it does not stop; has no effect if it has ended."""
        process = self._process
        if process is None:
            return
        if self._kept is not None:
            self._kept.close()
            self._kept = None
        if process.poll() is None:
            process.terminate()
            try:
                process.wait(_STOP_SECONDS)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait(_STOP_SECONDS)
        for pipe in (process.stdin, process.stdout):
            if pipe is not None:
                with contextlib.suppress(OSError):
                    pipe.close()
        if self._stderr is not None:
            self._stderr_text = self.stderr
            self._stderr.close()
            self._stderr = None

    def reset(self) -> None:
        """Restore the initial state: no wallets, no requests, no faults, the initial settings."""
        self._control("POST", "reset", {})

    def state(self) -> dict[str, Any]:
        """The server's state.

        "counts" (requests by endpoint), "requests", "connections" ("accepted" since the last reset, "open"),
        "gate" (the faults of its connections), "faults" (remaining, by endpoint), "settings", "invites",
        "wallets" (how many).
        """
        return self._control("GET", "state")

    @property
    def requests(self) -> list[dict[str, Any]]:
        """The requests since the last reset, oldest first; ``devserver.journal.Entry`` has the keys."""
        entries: list[dict[str, Any]] = self.state()["requests"]
        return entries

    def faults(self, endpoint: str, script: Sequence[Mapping[str, Any]]) -> None:
        """Replace the script of `endpoint`; docs/devserver.md has its form.

        endpoint: "register", "challenge", "verify", "display_name", a path, "*", or "connect".
        """
        self.script({endpoint: script})

    def script(self, scripts: Mapping[str, Sequence[Mapping[str, Any]]]) -> None:
        """Replace the scripts of several endpoints together."""
        self._control("POST", "faults", {endpoint: list(script) for endpoint, script in scripts.items()})

    def settings(self, **changes: Any) -> dict[str, Any]:
        """Change settings by name and return all of them.

        Names are the fields of ``devserver.settings.Settings``, and "invites" and "revoke_invites" (lists of
        codes to add and to revoke).
        """
        return self._control("POST", "settings", changes)

    def wait_for(self, endpoint: str, count: int, timeout: float = 10.0) -> None:
        """Wait for `count` requests at `endpoint`; DevServerError after `timeout` seconds (at most 60)."""
        asked = {"endpoint": endpoint, "count": count, "timeout": timeout}
        arrived = self._control("POST", "wait", asked, timeout + _CONTROL_SECONDS)["count"]
        if arrived < count:
            raise DevServerError(f"{endpoint}: {arrived} of {count} requests within {timeout} s")

    def release(self) -> None:
        """Resume the requests that a fault holds now."""
        self._control("POST", "release", {})

    def _control(
        self, method: str, name: str, body: Mapping[str, Any] | None = None, timeout: float = _CONTROL_SECONDS
    ) -> dict[str, Any]:
        status, answer = self._exchange(method, name, body, timeout)
        if status != 200:
            raise DevServerError(f"{name} refused: {answer.get('error')}")
        return answer

    def _exchange(
        self, method: str, name: str, body: Mapping[str, Any] | None, timeout: float
    ) -> tuple[int, dict[str, Any]]:
        kept, self._kept = self._kept, None
        if kept is not None and kept.sock is not None:
            kept.sock.settimeout(timeout)
            # The server may have closed it as idle.
            with contextlib.suppress(DevServerError):
                return self._ask(kept, method, name, body)
        return self._ask(self._connect(timeout), method, name, body)

    def _ask(
        self, connection: http.client.HTTPConnection, method: str, name: str, body: Mapping[str, Any] | None
    ) -> tuple[int, dict[str, Any]]:
        try:
            text = None if body is None else json.dumps(body)
            connection.request(method, f"/_control/{name}", text, {"Content-Type": "application/json"})
            response = connection.getresponse()
            answer: dict[str, Any] = json.loads(response.read())
        except (OSError, http.client.HTTPException, ValueError) as error:
            connection.close()
            raise DevServerError(f"no response to {name}: {error}{self._remains()}") from error
        if self._keep_control:
            self._kept = connection
        else:
            connection.close()
        return response.status, answer

    def _connect(self, timeout: float) -> http.client.HTTPConnection:
        address = urlsplit(self.url)
        assert address.hostname is not None
        if address.scheme == "http":
            return http.client.HTTPConnection(address.hostname, address.port, timeout=timeout)
        # The certificate may be invalid on purpose; control requests must work nevertheless.
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        return http.client.HTTPSConnection(address.hostname, address.port, timeout=timeout, context=context)

    def _read_line(self) -> bytes:
        assert self._process is not None and self._process.stdout is not None
        stdout = self._process.stdout.fileno()
        deadline = time.monotonic() + self._start_timeout
        line = b""
        while not line.endswith(b"\n"):
            left = deadline - time.monotonic()
            if left <= 0 or not _readable(stdout, left):
                raise DevServerError(f"not listening after {self._start_timeout} s{self._remains()}")
            chunk = os.read(stdout, 4096)
            if not chunk:
                raise DevServerError(f"ended before it listened{self._remains()}")
            line += chunk
        return line

    def _remains(self) -> str:
        text = self.stderr.strip()
        return f": {text}" if text else ""


def _readable(descriptor: int, seconds: float) -> bool:
    poll = select.poll()
    poll.register(descriptor, select.POLLIN | select.POLLHUP)
    return bool(poll.poll(seconds * 1000))

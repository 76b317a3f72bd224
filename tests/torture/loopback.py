"""The service of the runs over the network: HTTP/1.1 on the loopback, with persistent connections."""

from __future__ import annotations

import http.server
import json
import threading
from typing import Any

from tests.contract.support.service import BASE, Service


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    # Head and body in one write.
    wbufsize = -1
    disable_nagle_algorithm = True

    def do_POST(self) -> None:
        sent = self.rfile.read(int(self.headers["Content-Length"]))
        status, headers, body = Service()("POST", BASE + self.path, None, sent)
        self.send_response(status)
        for name, value in {**headers, "Content-Length": str(len(body))}.items():
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body)
        self.wfile.flush()

    def log_message(self, *args: Any) -> None:
        pass

    def handle(self) -> None:
        try:
            super().handle()
        except (ConnectionError, json.JSONDecodeError):
            self.close_connection = True


class Loopback:
    """A running server; a context manager."""

    def __enter__(self) -> str:
        self._server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), _Handler)
        self._server.daemon_threads = True
        self._server.block_on_close = False
        threading.Thread(target=self._server.serve_forever, args=(0.05,), daemon=True).start()
        return f"http://127.0.0.1:{self._server.server_address[1]}"

    def __exit__(self, *_: object) -> None:
        self._server.shutdown()
        self._server.server_close()

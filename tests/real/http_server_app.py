"""The service on the standard library's own server, in HTTP/1.0.

Arguments: "length" or "no-length", whether responses have a length; the port; a certificate and its key.
"""

from __future__ import annotations

import ssl
import sys
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

from tests.real.python_service import answered


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.0"

    def _answer(self) -> None:
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        status, answer = answered(self.path, body, self.client_address[1])
        self.send_response(status)
        if sys.argv[1] == "length":
            self.send_header("Content-Length", str(len(answer)))
        self.end_headers()
        self.wfile.write(answer)

    do_GET = do_POST = _answer


class Server(ThreadingHTTPServer):
    # As in the others; the library's backlog of five would make the sixth client wait for a second.
    request_queue_size = 64


def main() -> None:
    server = Server(("127.0.0.1", int(sys.argv[2])), Handler)
    if len(sys.argv) > 3:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*sys.argv[3:])
        # Each connection's thread does its own handshake.
        server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
    server.serve_forever()


if __name__ == "__main__":
    main()

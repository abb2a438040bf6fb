#!/usr/bin/env python3
"""https_endpoint.py --bind ADDRESS --port N --cert CERT --key KEY --record-dir DIR: a recording
HTTPS endpoint for tests. Once listening it prints "ready <port>". The n-th POST (from 1) is kept
as DIR/body-<n>.bin (the raw body) and DIR/request-<n>.txt (request line and headers); the
answer is 200, or the status in the file DIR/status while it exists, with an empty body. Like a
real server it offers HTTP/2 as well as HTTP/1.1, but speaks only the latter.
"""
import argparse
import http.server
import itertools
import ssl
from pathlib import Path


class RecordingHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def setup(self):
        # The handshake runs in the request's own thread, so a stalled client holds up no other.
        self.request.settimeout(30)
        self.request = self.server.tls.wrap_socket(self.request, server_side=True)
        super().setup()

    def do_POST(self):  # noqa: N802 - the base class's name
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        n, records = next(self.server.count), Path(self.server.dir)
        (records / f"body-{n}.bin").write_bytes(body)
        head = [self.requestline] + [f"{k}: {v}" for k, v in self.headers.raw_items()]
        (records / f"request-{n}.txt").write_text("".join(line + "\r\n" for line in head),
                                                  encoding="utf-8", errors="surrogateescape")
        status = records / "status"
        self.send_response(int(status.read_text()) if status.exists() else 200)
        self.send_header("Content-Length", "0")
        self.send_header("Connection", "close")
        self.end_headers()
        self.close_connection = True


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description="Recording HTTPS endpoint for tests")
    for option in ("--bind", "--cert", "--key", "--record-dir"):
        parser.add_argument(option, required=True)
    parser.add_argument("--port", type=int, required=True)
    args = parser.parse_args()
    server = http.server.ThreadingHTTPServer((args.bind, args.port), RecordingHandler)
    server.tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    server.tls.load_cert_chain(args.cert, args.key)
    server.tls.set_alpn_protocols(["h2", "http/1.1"])
    # next() on a count is atomic under the interpreter lock: each request its own number.
    server.dir, server.count = args.record_dir, itertools.count(1)
    print(f"ready {server.server_address[1]}", flush=True)
    server.serve_forever()

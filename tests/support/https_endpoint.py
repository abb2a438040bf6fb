#!/usr/bin/env python3
"""A recording HTTPS endpoint for tests: it keeps every POST it receives and answers with a
status the test chooses.

    https_endpoint.py --bind 127.0.0.1 --port N --cert CERT --key KEY --record-dir DIR
                      [--status 200] [--interim-100] [--reply TEXT]

--port 0 picks a free port. Once listening it prints "ready <port>" on standard output. For
the n-th POST (n from 1) it writes the raw body to DIR/body-<n>.bin and the request line and
headers, as received, to DIR/request-<n>.txt, then answers with the status read from
DIR/status when that file exists (re-read for every request, so a test can change it while
the endpoint runs), else --status; with --interim-100 an "HTTP/1.1 100 Continue" block comes
first. The body of the answer is --reply. SIGTERM and SIGINT end it cleanly (exit status 0).
Only the standard library is used.
"""

import argparse
import http.server
import os
import signal
import socketserver
import ssl
import sys
import threading


class RecordingHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "recording-endpoint"

    def version_string(self):
        return self.server_version

    def setup(self):
        # The handshake runs here, in the request's own thread, so a client that stalls
        # in it cannot hold up the others.
        self._interim_sent = False
        self.request.settimeout(self.server.io_timeout)
        self.request = self.server.tls.wrap_socket(self.request, server_side=True)
        super().setup()

    def log_message(self, format, *args):  # noqa: A002 - the base class's name
        if self.server.verbose:
            super().log_message(format, *args)

    def _read_body(self):
        if "chunked" in self.headers.get("Transfer-Encoding", "").lower():
            body = bytearray()
            while True:
                size_line = self.rfile.readline()
                size = int(size_line.split(b";", 1)[0].strip() or b"0", 16)
                if size == 0:
                    # Trailers, up to the empty line.
                    while self.rfile.readline() not in (b"\r\n", b"\n", b""):
                        pass
                    return bytes(body)
                body += self.rfile.read(size)
                self.rfile.readline()
        length = int(self.headers.get("Content-Length", "0") or "0")
        return self.rfile.read(length) if length > 0 else b""

    def _status(self):
        try:
            with open(os.path.join(self.server.record_dir, "status"), "r") as f:
                return int(f.read().strip())
        except FileNotFoundError:
            return self.server.status

    def handle_expect_100(self):
        # A client that asked for "100 Continue" gets it; --interim-100 then adds no second.
        self._interim_sent = True
        return super().handle_expect_100()

    def _send_interim(self):
        self.wfile.write(b"HTTP/1.1 100 Continue\r\n\r\n")
        self.wfile.flush()

    def do_POST(self):  # noqa: N802 - the base class's name
        body = self._read_body()
        with self.server.lock:
            self.server.count += 1
            n = self.server.count
        request = self.requestline + "\r\n"
        request += "".join(f"{k}: {v}\r\n" for k, v in self.headers.raw_items())
        with open(os.path.join(self.server.record_dir, f"body-{n}.bin"), "wb") as f:
            f.write(body)
        with open(os.path.join(self.server.record_dir, f"request-{n}.txt"), "w",
                  encoding="utf-8", errors="surrogateescape") as f:
            f.write(request)

        if self.server.interim_100 and not self._interim_sent:
            self._send_interim()
        self._interim_sent = False
        reply = self.server.reply
        self.send_response(self._status())
        self.send_header("Content-Type", "text/plain; charset=utf-8")
        self.send_header("Content-Length", str(len(reply)))
        self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(reply)
        self.close_connection = True


class Endpoint(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    allow_reuse_address = True


def main(argv):
    parser = argparse.ArgumentParser(description="Recording HTTPS endpoint for tests")
    parser.add_argument("--bind", default="127.0.0.1")
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--cert", required=True)
    parser.add_argument("--key", required=True)
    parser.add_argument("--record-dir", required=True)
    parser.add_argument("--status", type=int, default=200)
    parser.add_argument("--interim-100", action="store_true")
    parser.add_argument("--reply", default="")
    parser.add_argument("--verbose", action="store_true", help="log requests on stderr")
    args = parser.parse_args(argv)

    tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    tls.load_cert_chain(args.cert, args.key)

    server = Endpoint((args.bind, args.port), RecordingHandler)
    server.tls = tls
    server.record_dir = args.record_dir
    server.status = args.status
    server.interim_100 = args.interim_100
    server.reply = args.reply.encode("utf-8", errors="surrogateescape")
    server.verbose = args.verbose
    server.io_timeout = 30
    server.lock = threading.Lock()
    server.count = 0

    def stop(signum, frame):
        raise SystemExit(0)

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)

    print(f"ready {server.server_address[1]}", flush=True)
    try:
        server.serve_forever(poll_interval=0.1)
    except SystemExit:
        pass
    finally:
        server.server_close()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

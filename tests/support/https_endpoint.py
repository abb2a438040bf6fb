#!/usr/bin/env python3
"""A recording HTTPS endpoint for tests: it keeps every POST it receives and answers with a
status the test chooses.

    https_endpoint.py --bind 127.0.0.1 --port N --cert CERT --key KEY --record-dir DIR
                      [--status 200] [--interim-100] [--reply TEXT]

--port 0 picks a free port; once listening it prints "ready <port>". The n-th POST (from 1)
is recorded as DIR/body-<n>.bin (the raw body) and DIR/request-<n>.txt (request line and
headers as received). The answer is --status with --reply as its body, after an "HTTP/1.1
100 Continue" block with --interim-100; a file DIR/status, DIR/reply or DIR/interim-100
overrides its option while it exists (looked up for every request, so a test can change
them while the endpoint runs). SIGTERM and SIGINT end it cleanly (exit status 0).
"""
import argparse
import http.server
import os
import signal
import ssl
import sys
import threading


class RecordingHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def setup(self):
        # The handshake runs here, in the request's own thread, so a client that stalls
        # in it cannot hold up the others.
        self.interim_sent = False
        self.request.settimeout(30)
        self.request = self.server.tls.wrap_socket(self.request, server_side=True)
        super().setup()

    def log_message(self, *args):
        pass  # standard error is the test's output

    def handle_expect_100(self):
        # A client that asked for "100 Continue" gets it; --interim-100 then adds no second.
        self.interim_sent = True
        return super().handle_expect_100()

    def control(self, name, default=None):
        try:
            with open(os.path.join(self.server.args.record_dir, name), "rb") as f:
                return f.read()
        except FileNotFoundError:
            return default

    def do_POST(self):  # noqa: N802 - the base class's name
        args, record_dir = self.server.args, self.server.args.record_dir
        # Curl sends a posted body with a length, never in chunks.
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        with self.server.lock:
            self.server.count += 1
            n = self.server.count
        with open(os.path.join(record_dir, f"body-{n}.bin"), "wb") as f:
            f.write(body)
        with open(os.path.join(record_dir, f"request-{n}.txt"), "w", encoding="utf-8",
                  errors="surrogateescape") as f:
            f.write(self.requestline + "\r\n"
                    + "".join(f"{k}: {v}\r\n" for k, v in self.headers.raw_items()))
        interim = args.interim_100 or self.control("interim-100") is not None
        if interim and not self.interim_sent:
            self.wfile.write(b"HTTP/1.1 100 Continue\r\n\r\n")
            self.wfile.flush()
        reply = self.control("reply", args.reply.encode("utf-8", errors="surrogateescape"))
        self.send_response(int(self.control("status", args.status)))
        self.send_header("Content-Type", "text/plain; charset=utf-8")
        self.send_header("Content-Length", str(len(reply)))
        self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(reply)
        self.close_connection = True


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
    args = parser.parse_args(argv)

    server = http.server.ThreadingHTTPServer((args.bind, args.port), RecordingHandler)
    server.tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    server.tls.load_cert_chain(args.cert, args.key)
    server.args, server.lock, server.count = args, threading.Lock(), 0

    for sig in (signal.SIGTERM, signal.SIGINT):
        signal.signal(sig, lambda *_: sys.exit(0))
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

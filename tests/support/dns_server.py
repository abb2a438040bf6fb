#!/usr/bin/env python3
"""dns_server.py: the scripted name server of the DNS tests.

It answers on UDP and TCP at --bind/--port. A query whose name is in the script gets the
scripted answer, however broken; every other query is passed, as raw bytes, to the ordinary
server at --upstream (dnsmasq) and its answer relayed unchanged. Every query, scripted or
relayed, is appended to --log as one line "name<TAB>TYPE<TAB>udp|tcp" (name lower-case,
without the final dot), so tests can count the queries a lookup made.

The script is JSON, read from every --script file at each query (later files override
earlier ones name by name), so a test changes it by rewriting a file:

    {"host.scripted.test": {"MX": {"rcode": 2}},
     "3.2.0.192.in-addr.arpa": {"PTR": {"records": ["@ PTR a.example.test"]},
                                "*": {"drop": true}}}

Names are matched without regard to case and without the final dot. Under a name, the query
type's entry is used, else "*"; a scripted name without either answers NOERROR with no
records. An entry holds:

    rcode     response code (default 0; any value 0-15)
    records   answer records in zone-file form; "@" stands for the queried name
    ra, aa    the header flags (default both set, as a recursive server sets them)
    drop      true: never answer (the client has to time out)
    tc        true: over UDP answer with the TC flag and no records (the client retries
              over TCP and gets the full answer there)
    mangle    damage done to the packed answer, which must then hold one record and no
              other section: "rdata_loop" (the record's data is a compression pointer to
              itself), "rdata_past_end" (a pointer past the message), "owner_loop" (the
              record's owner name is a pointer to itself), "truncate" (the last `cut`
              bytes, default 3, are cut off)

It prints "ready" on standard output once both sockets listen.
"""

import argparse
import json
import os
import socket
import socketserver
import struct
import sys
import threading

from dnslib import DNSRecord, QTYPE, RR


def load_script(paths):
    script = {}
    for path in paths:
        try:
            with open(path, encoding="utf-8") as f:
                text = f.read()
        except FileNotFoundError:
            continue
        if text.strip():
            for name, entry in json.loads(text).items():
                script[name.lower().rstrip(".")] = entry
    return script


class Server:
    def __init__(self, args):
        self.args = args
        self.lock = threading.Lock()
        host, port = args.upstream.rsplit(":", 1)
        self.upstream = (host, int(port))

    def log(self, name, qtype, transport):
        with self.lock, open(self.args.log, "a", encoding="utf-8") as f:
            f.write(f"{name}\t{qtype}\t{transport}\n")

    def answer(self, data, transport):
        """The bytes to send back for the query data, or None to stay silent."""
        try:
            request = DNSRecord.parse(data)
            qname = str(request.q.qname).lower().rstrip(".")
            qtype = QTYPE.get(request.q.qtype)
        except Exception:  # not a query we can read: say nothing, as a broken server would
            return None
        self.log(qname, qtype, transport)
        entries = load_script(self.args.script).get(qname)
        if entries is None:
            return self.relay(data)
        entry = entries.get(qtype, entries.get("*", {}))
        if entry.get("drop"):
            return None
        reply = request.reply(ra=int(entry.get("ra", 1)), aa=int(entry.get("aa", 1)))
        reply.header.rcode = int(entry.get("rcode", 0))
        if entry.get("tc") and transport == "udp":
            reply.header.tc = 1
            return reply.pack()
        for text in entry.get("records", []):
            for rr in RR.fromZone(text.replace("@", str(request.q.qname))):
                reply.add_answer(rr)
        packed = bytearray(reply.pack())
        return bytes(mangle(packed, entry))

    def relay(self, data):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            s.settimeout(3)
            s.sendto(data, self.upstream)
            try:
                return s.recv(65535)
            except socket.timeout:
                return None


def mangle(packed, entry):
    kind = entry.get("mangle")
    if not kind:
        return packed
    if kind == "truncate":
        return packed[: len(packed) - int(entry.get("cut", 3))]
    qdcount, ancount, nscount, arcount = struct.unpack("!4H", packed[4:12])
    if ancount != 1 or nscount or arcount:
        raise ValueError("mangle needs exactly one answer record")
    answer_at = skip_name(packed, 12) + 4  # the question: its name, type and class
    owner_end = skip_name(packed, answer_at)
    rdlength = struct.unpack("!H", packed[owner_end + 8 : owner_end + 10])[0]
    rdata_at = owner_end + 10
    if rdlength < 2:
        raise ValueError("mangle needs record data of at least two bytes")
    if kind == "rdata_loop":
        packed[rdata_at : rdata_at + 2] = struct.pack("!H", 0xC000 | rdata_at)
    elif kind == "rdata_past_end":
        packed[rdata_at : rdata_at + 2] = struct.pack("!H", 0xC000 | 0x3FFF)
    elif kind == "owner_loop":
        if owner_end - answer_at != 2:
            raise ValueError("owner_loop needs a compressed owner name")
        packed[answer_at : answer_at + 2] = struct.pack("!H", 0xC000 | answer_at)
    else:
        raise ValueError(f"unknown mangle {kind}")
    return packed


def skip_name(packed, at):
    while True:
        length = packed[at]
        if length & 0xC0 == 0xC0:
            return at + 2
        if length == 0:
            return at + 1
        at += 1 + length


def serve(args):
    server = Server(args)

    class Udp(socketserver.BaseRequestHandler):
        def handle(self):
            data, sock = self.request
            out = server.answer(data, "udp")
            if out is not None:
                sock.sendto(out, self.client_address)

    class Tcp(socketserver.BaseRequestHandler):
        def handle(self):
            while True:
                head = self.request.recv(2)
                if len(head) < 2:
                    return
                (length,) = struct.unpack("!H", head)
                data = b""
                while len(data) < length:
                    piece = self.request.recv(length - len(data))
                    if not piece:
                        return
                    data += piece
                out = server.answer(data, "tcp")
                if out is None:
                    return
                self.request.sendall(struct.pack("!H", len(out)) + out)

    class UdpServer(socketserver.ThreadingUDPServer):
        allow_reuse_address = True
        daemon_threads = True

    class TcpServer(socketserver.ThreadingTCPServer):
        allow_reuse_address = True
        daemon_threads = True

    udp = UdpServer((args.bind, args.port), Udp)
    tcp = TcpServer((args.bind, args.port), Tcp)
    for s in (udp, tcp):
        threading.Thread(target=s.serve_forever, daemon=True).start()
    print("ready", flush=True)
    threading.Event().wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--bind", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=53)
    parser.add_argument("--upstream", default="127.0.0.1:5353")
    parser.add_argument("--script", action="append", default=[])
    parser.add_argument("--log", required=True)
    args = parser.parse_args()
    open(args.log, "a").close()
    try:
        serve(args)
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""dns_server.py: the scripted name server of the DNS tests, on UDP and TCP at --bind/--port.

A query for a scripted name gets the scripted answer, however broken; any other is relayed, as
raw bytes, to --upstream. Every query is a line "name<TAB>TYPE<TAB>udp|tcp" of --log (name in
lower case, no final dot). The script is JSON, read from every --script file at each query
(later files override earlier ones name by name), so a test changes it by rewriting a file:
    {"host.scripted.test": {"MX": {"rcode": 2}, "*": {"drop": true}}}
Names match regardless of case and final dot. The query type's entry is used, else "*"; a name
with neither answers NOERROR with no records. An entry holds: rcode (default 0); records (in
zone-file form, "@" the queried name); ra, aa (header flags, default set); drop (never answer);
tc (over UDP: the TC flag and no records, so the client retries over TCP); mangle, damage done
to an answer of one record and no other section: "rdata_loop" (the record's data a compression
pointer to itself), "rdata_past_end" (a pointer past the message), "owner_loop" (the owner
name a pointer to itself), "truncate" (the last `cut` bytes, default 3, cut off).
"""
import argparse
import json
import os
import socket
import socketserver
import struct
import threading

from dnslib import DNSRecord, QTYPE, RR


def load_script(paths):
    script = {}
    for path in filter(os.path.exists, paths):
        with open(path, encoding="utf-8") as f:
            for name, entry in json.loads(f.read().strip() or "{}").items():
                script[name.lower().rstrip(".")] = entry
    return script


LOG_LOCK = threading.Lock()


def answer(args, data, transport):
    """The bytes to send back for the query data, or None to stay silent."""
    try:
        request = DNSRecord.parse(data)
        qname, qtype = str(request.q.qname).lower().rstrip("."), QTYPE.get(request.q.qtype)
    except Exception:  # not a query we can read: say nothing, as a broken server would
        return None
    with LOG_LOCK, open(args.log, "a", encoding="utf-8") as f:
        f.write(f"{qname}\t{qtype}\t{transport}\n")
    entries = load_script(args.script).get(qname)
    if entries is None:
        host, port = args.upstream.rsplit(":", 1)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            s.settimeout(3)
            s.sendto(data, (host, int(port)))
            try:
                return s.recv(65535)
            except socket.timeout:
                return None
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
    return bytes(mangle(bytearray(reply.pack()), entry.get("mangle"), int(entry.get("cut", 3))))


def mangle(packed, kind, cut):
    if kind in (None, "truncate"):
        return packed[: len(packed) - cut] if kind else packed
    answer_at = skip_name(packed, 12) + 4  # past the question's name, type and class
    rdata_at = skip_name(packed, answer_at) + 10
    rdlength = struct.unpack("!H", packed[rdata_at - 2 : rdata_at])[0]
    if (struct.unpack("!3H", packed[6:12]) != (1, 0, 0) or rdlength < 2
            or kind == "owner_loop" and rdata_at - 10 - answer_at != 2):
        raise ValueError("mangle needs one answer record (data of 2 bytes or more, and for "
                         "owner_loop a compressed owner name) and no other section")
    at, to = {"rdata_loop": (rdata_at, rdata_at), "rdata_past_end": (rdata_at, 0x3FFF),
              "owner_loop": (answer_at, answer_at)}[kind]
    packed[at : at + 2] = struct.pack("!H", 0xC000 | to)
    return packed


def skip_name(packed, at):
    while packed[at] and packed[at] & 0xC0 != 0xC0:
        at += 1 + packed[at]
    return at + (2 if packed[at] else 1)


def serve(args):
    class Udp(socketserver.BaseRequestHandler):
        def handle(self):
            data, sock = self.request
            out = answer(args, data, "udp")
            if out is not None:
                sock.sendto(out, self.client_address)

    class Tcp(socketserver.StreamRequestHandler):
        def handle(self):
            while len(head := self.rfile.read(2)) == 2:
                data = self.rfile.read(struct.unpack("!H", head)[0])
                out = answer(args, data, "tcp")
                if out is None:
                    return
                self.wfile.write(struct.pack("!H", len(out)) + out)

    for kind, handler in ((socketserver.ThreadingUDPServer, Udp),
                          (socketserver.ThreadingTCPServer, Tcp)):
        kind.allow_reuse_address = kind.daemon_threads = True
        threading.Thread(target=kind((args.bind, args.port), handler).serve_forever,
                         daemon=True).start()
    print("ready", flush=True)
    threading.Event().wait()


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--bind", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=53)
    parser.add_argument("--upstream", default="127.0.0.1:5353")
    parser.add_argument("--log", required=True)
    parser.add_argument("--script", action="append", default=[])
    args = parser.parse_args()
    serve(args)

#!/usr/bin/env python3
"""A stand-in for the system logger: receives syslog datagrams on a Unix socket and appends
each record, decoded, as one JSON line to a file. With --show, prints such a file readably.

    syslog_listener.py SOCKET OUTFILE     listen (prints "ready" once bound)
    syslog_listener.py --show OUTFILE     print the records as "facility.priority tag[pid]: text"
"""
import json
import os
import re
import socket
import sys

FACILITIES = ("kern user mail daemon auth syslog lpr news uucp cron authpriv ftp ntp audit alert "
              "clock local0 local1 local2 local3 local4 local5 local6 local7").split()
PRIORITIES = "emerg alert crit err warning notice info debug".split()
# glibc's local format: <PRI>Mmm dd hh:mm:ss TAG[PID]: TEXT
RECORD = re.compile(rb"^<(\d{1,3})>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^\[:]*)(?:\[(\d+)\])?: ?(.*)$",
                    re.S)


def decode(datagram):
    match = RECORD.match(datagram)
    if not match:
        return {"raw": datagram.decode("utf-8", "replace")}
    pri, tag, pid, text = match.groups()
    facility = int(pri) >> 3
    return {"facility": FACILITIES[facility] if facility < len(FACILITIES) else str(facility),
            "priority": PRIORITIES[int(pri) & 7], "tag": tag.decode("utf-8", "replace"),
            "pid": int(pid) if pid else None, "text": text.decode("utf-8", "replace")}


def listen(path, outfile):
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    sock.bind(path)
    os.chmod(path, 0o666)
    with open(outfile, "a", buffering=1) as out:
        print("ready", flush=True)
        while True:
            out.write(json.dumps(decode(sock.recv(65536))) + "\n")


def show(outfile):
    with open(outfile) as records:
        for r in map(json.loads, records):
            pid = "" if r.get("pid") is None else "[%d]" % r["pid"]
            print("(undecoded) " + r["raw"] if "raw" in r else
                  "%s.%s %s%s: %s" % (r["facility"], r["priority"], r["tag"], pid, r["text"]))


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    if sys.argv[1] == "--show":
        show(sys.argv[2])
    else:
        listen(sys.argv[1], sys.argv[2])

#!/usr/bin/env bash
# dnsenv.sh: runs a command with real name servers of its own, so lookups can be tested for
# real without touching this machine's resolver or the network. Needs root; without it, it
# exits with 77 (the tests' "skipped").
#
#   dnsenv.sh COMMAND [ARG...]
#
# The command runs in private mount and network namespaces with only loopback, brought up.
# Over the machine's files it sees private copies:
#   /etc/resolv.conf   nameserver 127.0.0.1, one try of one second per query, so a server
#                      that never answers ends a lookup after about a second
#   /etc/nsswitch.conf hosts: files dns
#   /etc/hosts         localhost only; writable: tests put their own lines there
# On 127.0.0.1:53 (UDP and TCP) runs the scripted server (dns_server.py) with the script
# tests/support/dns_script.json plus the file $DNSENV_SCRIPT (empty at first; tests write
# it to add names); every name not scripted is relayed to dnsmasq on 127.0.0.1:5353, which
# serves tests/support/dnsmasq.conf and each file named in $DNSENV_DNSMASQ_CONF
# (space-separated, given by the caller). Every query the servers see is a line of
# $DNSENV_QUERY_LOG: "name<TAB>TYPE<TAB>udp|tcp".
#
# Environment for the command: DNSENV_WORK (a private tmpfs), DNSENV_SCRIPT,
# DNSENV_QUERY_LOG, DNSENV_SOURCE_DIR. Its exit status is dnsenv.sh's.
set -euo pipefail

support_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
die() {
    echo "dnsenv.sh: $*" >&2
    exit 1
}

if [ -z "${DNSENV_INSIDE:-}" ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "dnsenv.sh: needs root (it makes mount and network namespaces); skipped" >&2
        exit 77
    fi
    [ $# -ge 1 ] || die "usage: dnsenv.sh COMMAND [ARG...]"
    exec unshare --mount --net --fork --propagation private -- \
        env DNSENV_INSIDE=1 bash "${BASH_SOURCE[0]}" "$@"
fi
unset DNSENV_INSIDE

python=${DNSENV_PYTHON:-/usr/bin/python3}
dnsmasq=${DNSENV_DNSMASQ:-/usr/sbin/dnsmasq}
[ -x "$dnsmasq" ] || die "$dnsmasq is missing (Debian package dnsmasq-base)"
"$python" -c 'import dnslib' 2>/dev/null || die "$python lacks dnslib (Debian package python3-dnslib)"

# A private tmpfs for the servers' files; the directory itself goes when the run ends.
work=$(mktemp -d /tmp/dnsenv.XXXXXX)
mount -t tmpfs -o mode=755 dnsenv "$work"

ip link set lo up
printf 'nameserver 127.0.0.1\noptions timeout:1 attempts:1\n' >"$work/resolv.conf"
printf 'hosts: files dns\n' >"$work/nsswitch.conf"
printf '127.0.0.1\tlocalhost\n::1\tlocalhost\n' >"$work/hosts"
chmod 644 "$work"/*
for f in resolv.conf nsswitch.conf hosts; do
    mount --bind "$work/$f" "/etc/$f"
done

pids=()
cleanup() {
    kill "${pids[@]}" 2>/dev/null || true
    wait 2>/dev/null || true
    umount -l "$work" 2>/dev/null || true
    rmdir "$work" 2>/dev/null || true
}
trap cleanup EXIT

dnsmasq_args=(--keep-in-foreground --pid-file= --port=5353 --listen-address=127.0.0.1
              --bind-interfaces "--log-facility=$work/dnsmasq.log"
              "--conf-file=$support_dir/dnsmasq.conf")
for extra in ${DNSENV_DNSMASQ_CONF:-}; do
    dnsmasq_args+=("--conf-file=$extra")
done
"$dnsmasq" "${dnsmasq_args[@]}" >"$work/dnsmasq.out" 2>&1 &
pids+=($!)

: >"$work/script.json"
: >"$work/queries.log"
"$python" "$support_dir/dns_server.py" --bind 127.0.0.1 --port 53 --upstream 127.0.0.1:5353 \
    --script "$support_dir/dns_script.json" --script "$work/script.json" \
    --log "$work/queries.log" >"$work/server.out" 2>&1 &
pids+=($!)

# Both are ready when dnsmasq answers (through the scripted server) for a name it holds.
ready=
for ((i = 0; i < 200; i++)); do
    if "$python" - <<'PROBE' 2>/dev/null; then
import sys
from dnslib import DNSRecord
reply = DNSRecord.parse(DNSRecord.question("a.plain.test", "A").send("127.0.0.1", 53, timeout=0.2))
sys.exit(0 if reply.rr else 1)
PROBE
        ready=1
        break
    fi
    kill -0 "${pids[@]}" 2>/dev/null || break
    sleep 0.05
done
if [ -z "$ready" ]; then
    cat "$work/dnsmasq.out" "$work/server.out" >&2 || true
    die "the name servers did not start"
fi
: >"$work/queries.log"

export DNSENV_WORK=$work DNSENV_SCRIPT=$work/script.json DNSENV_QUERY_LOG=$work/queries.log
export DNSENV_SOURCE_DIR=$(cd "$support_dir/../.." && pwd)
status=0
"$@" || status=$?
exit "$status"

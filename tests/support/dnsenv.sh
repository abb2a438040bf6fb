#!/usr/bin/env bash
# dnsenv.sh COMMAND [ARG...]: runs COMMAND with name servers of its own, in private mount and
# network namespaces with only loopback, so lookups are tested for real without touching this
# machine. Needs root; without it, exits 77 (the tests' "skipped"). Private copies lie over
# /etc/resolv.conf (127.0.0.1, one try of one second, so a silent server ends a lookup in about
# a second), /etc/nsswitch.conf (hosts: files dns) and /etc/hosts (localhost; tests add lines).
# On 127.0.0.1:53 dns_server.py answers from dns_script.json and the file $DNSENV_SCRIPT (empty
# at first), relaying every other name to dnsmasq on port 5353 (dnsmasq.conf and the files in
# $DNSENV_DNSMASQ_CONF). Every query is a line "name<TAB>TYPE<TAB>udp|tcp" of $DNSENV_QUERY_LOG.
# COMMAND also gets DNSENV_WORK (a private tmpfs), DNSENV_SOURCE_DIR and the bash function
# wait_until (below); its exit status is ours.
set -euo pipefail
support_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
die() { echo "dnsenv.sh: $*" >&2; exit 1; }
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
# wait_until COMMAND...: true once COMMAND succeeds, false after about ten seconds of failures.
wait_until() {
    local i
    for ((i = 0; i < 200; i++)); do "$@" 2>/dev/null && return 0; sleep 0.05; done
    return 1
}
export -f wait_until

python=${DNSENV_PYTHON:-/usr/bin/python3}
dnsmasq=${DNSENV_DNSMASQ:-/usr/sbin/dnsmasq}
[ -x "$dnsmasq" ] || die "$dnsmasq is missing (Debian package dnsmasq-base)"
"$python" -c 'import dnslib' 2>/dev/null || die "$python lacks dnslib (Debian package python3-dnslib)"

work=$(mktemp -d /tmp/dnsenv.XXXXXX)
mount -t tmpfs -o mode=755 dnsenv "$work"
ip link set lo up
printf 'nameserver 127.0.0.1\noptions timeout:1 attempts:1\n' >"$work/resolv.conf"
printf 'hosts: files dns\n' >"$work/nsswitch.conf"
printf '127.0.0.1\tlocalhost\n::1\tlocalhost\n' >"$work/hosts"
chmod 644 "$work"/*
for f in resolv.conf nsswitch.conf hosts; do mount --bind "$work/$f" "/etc/$f"; done

pids=()
trap '{ set +e; kill "${pids[@]}"; wait; umount -l "$work"; rmdir "$work"; } 2>/dev/null' EXIT
conf=("--conf-file=$support_dir/dnsmasq.conf")
for extra in ${DNSENV_DNSMASQ_CONF:-}; do conf+=("--conf-file=$extra"); done
"$dnsmasq" --keep-in-foreground --pid-file= --port=5353 --listen-address=127.0.0.1 \
    --bind-interfaces "--log-facility=$work/dnsmasq.log" "${conf[@]}" >"$work/dnsmasq.out" 2>&1 &
pids+=($!)
: >"$work/script.json"
"$python" "$support_dir/dns_server.py" --upstream 127.0.0.1:5353 --log "$work/queries.log" \
    --script "$support_dir/dns_script.json" --script "$work/script.json" >"$work/server.out" 2>&1 &
pids+=($!)
# Both are ready when dnsmasq answers, through the scripted server, for a name it holds.
probe='from dnslib import DNSRecord as R
assert R.parse(R.question("a.plain.test").send("127.0.0.1", 53, timeout=0.2)).rr'
wait_until "$python" -c "$probe" || {
    cat "$work/dnsmasq.out" "$work/server.out" >&2
    die "the name servers did not start"
}
: >"$work/queries.log"

export DNSENV_WORK=$work DNSENV_SCRIPT=$work/script.json DNSENV_QUERY_LOG=$work/queries.log
export DNSENV_SOURCE_DIR=${support_dir%/tests/support}
"$@"

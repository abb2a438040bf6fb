#!/usr/bin/env bash
# policyd_load.sh BUILD_DIR: measures ardvex-policyd of a (release) build under load, with DNS
# from a local dnsmasq serving the test records (tests/support/dnsmasq.conf and the Postfix
# scenarios' names and block list), inside the namespaces of tests/support/dnsenv.sh. The
# fixture's scripted server (Python, in front of its dnsmasq) would measure itself, so the
# load gets a dnsmasq of its own on 127.0.0.2. Prints: saturation throughput (50 connections back to back), latency at a
# fixed 1,000 requests/s over 50 connections, the same without any DNS (private clients), the
# workers' CPU time and DNS queries per request, and a CPU profile of the workers.
# Needs root. WORKERS (default 8) sets the pool size.
set -euo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
build_dir=$(cd "$1" && pwd)
if [ -z "${DNSENV_WORK:-}" ]; then
    export DNSENV_DNSMASQ_CONF=$source_dir/tests/policyd/dnsmasq.conf
    exec "$source_dir/tests/support/dnsenv.sh" bash "${BASH_SOURCE[0]}" "$build_dir"
fi

mount -t tmpfs loadlog /var/log
work=$DNSENV_WORK/load
mkdir -p "$work"
chmod 755 "$work"
# Every load client has a PTR name (and its A record), as most real senders do.
for i in $(seq 1 40); do echo "host-record=load-$i.good.test,203.0.113.$i"; done >"$work/load.conf"
/usr/sbin/dnsmasq --keep-in-foreground --pid-file= --port=53 --listen-address=127.0.0.2 \
    --bind-interfaces --log-queries "--log-facility=$work/dnsmasq.log" \
    "--conf-file=$source_dir/tests/support/dnsmasq.conf" \
    "--conf-file=$source_dir/tests/policyd/dnsmasq.conf" "--conf-file=$work/load.conf" &
dnsmasq_pid=$!
printf 'nameserver 127.0.0.2\noptions timeout:1 attempts:1\n' >"$work/resolv.conf"
mount --bind "$work/resolv.conf" /etc/resolv.conf
cat >"$work/policyd.conf" <<CONF
listen = unix:$work/policyd.sock
user = nobody
workers = ${WORKERS:-8}
block_lists_zones = bl.test
CONF
"$build_dir/tools/ardvex-policyd" -c "$work/policyd.conf" --stderr 2>"$work/policyd.log" &
pid=$!
trap 'kill $pid $dnsmasq_pid 2>/dev/null; wait 2>/dev/null' EXIT
for _ in $(seq 100); do grep -qs "ready:" "$work/policyd.log" && break; sleep 0.05; done
load=$build_dir/bench/policyd_load
workers() { tr " " "\n" <"/proc/$pid/task/$pid/children" | grep .; }
cpu_ticks() { # user+system ticks of all workers
    local t=0 w
    for w in $(workers); do t=$((t + $(awk '{print $14 + $15}' "/proc/$w/stat"))); done
    echo "$t"
}

echo "ardvex-policyd with ${WORKERS:-8} workers; $(nproc) CPUs"
"$load" "$work/policyd.sock" -c 50 -s 3 | tail -n 1  # warm-up
echo "--- saturation, 50 connections"
"$load" "$work/policyd.sock" -c 50 -s 10 || true
echo "--- fixed load: 1000 requests/s over 50 connections"
queries_before=$(grep -c "query\[" "$work/dnsmasq.log" || true)
before=$(cpu_ticks)
out=$("$load" "$work/policyd.sock" -c 50 -r 1000 -s 20) || true
after=$(cpu_ticks)
echo "$out"
answers=$(sed -n 's/.*: \([0-9]*\) answers.*/\1/p' <<<"$out")
queries=$(($(grep -c "query\[" "$work/dnsmasq.log" || true) - queries_before))
awk -v t=$((after - before)) -v hz="$(getconf CLK_TCK)" -v n="$answers" -v q="$queries" \
    'BEGIN {printf "workers CPU %.3f ms per request; %.2f DNS queries per request\n", t * 1000 / hz / n, q / n}'
echo "--- the same load without DNS (private client addresses, no lookups)"
"$load" "$work/policyd.sock" -c 50 -r 1000 -s 10 --private || true
if command -v perf >/dev/null; then
    echo "--- CPU profile of the workers during the fixed load (perf, by shared object)"
    "$load" "$work/policyd.sock" -c 50 -r 1000 -s 8 >/dev/null &
    load_pid=$!
    sleep 1
    perf record -g -o "$work/perf.data" -p "$(workers | paste -sd, -)" -- sleep 5 \
        >"$work/perf.out" 2>&1 || tail -n 3 "$work/perf.out"
    wait "$load_pid" || true
    for sort in dso dso,sym; do
        perf report -i "$work/perf.data" --no-children --sort "$sort" --stdio -g none 2>&1 |
            grep -v "^#" | grep -v "^$" | head -n 12 || true
    done
fi

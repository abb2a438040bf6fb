#!/usr/bin/env bash
# run-main-job.sh BUILD_DIR: runs the built ardvex-metrics-client for real, three times, on a
# throw-away copy of a server (tests/integration/nsenv.sh: private mount and network
# namespaces, the suite's directories on tmpfs, a local HTTPS endpoint for the metrics host,
# the system log captured from /dev/log), and prints what each run did: its exit status,
# the system-log records it wrote and the bodies the endpoint received.
#   1. first post: no cache yet, the set is posted and cached;
#   2. unchanged: nothing is sent and nothing is logged;
#   3. the enabled switch flipped to 0: the new set is posted.
# Then a few mails through a real Postfix screened by ardvex-policyd
# (tools/policyd/screening-demo.sh).
# Builds nothing itself; needs root.
set -euo pipefail

source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
if [ $# -ne 1 ]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
build_dir=$(cd "$1" && pwd)

if [ -z "${NSENV_WORK:-}" ]; then
    [ -x "$build_dir/metrics_client/ardvex-metrics-client" ] || {
        echo "$0: $build_dir/metrics_client/ardvex-metrics-client is not built" >&2
        exit 1
    }
    "$source_dir/tests/integration/nsenv.sh" "$build_dir" bash "${BASH_SOURCE[0]}" "$build_dir"
    # Then mail screening: a real Postfix asking ardvex-policyd, in namespaces of its own.
    if [ -x "$build_dir/tools/ardvex-policyd" ]; then
        echo
        echo "################ mail screening"
        DNSENV_DNSMASQ_CONF=$source_dir/tests/policyd/dnsmasq.conf \
            "$source_dir/tests/support/dnsenv.sh" "$source_dir/tests/policyd/postfix_env.sh" \
            "$build_dir" "$source_dir/tools/policyd/screening-demo.sh"
    fi
    exit 0
fi

# --- inside the namespaces -------------------------------------------------------------
python=${PYTHON:-python3}
listener=$source_dir/tests/integration/syslog_listener.py
shown_records=0
shown_bodies=0

# Prints the log records and endpoint bodies that appeared since the last call. A marker
# datagram sent after the run is written after every record of the run, so waiting for it
# makes sure nothing is still on its way.
show_new() {
    local marker=main-job-marker-$RANDOM$RANDOM i total
    "$python" -c 'import socket,sys; s=socket.socket(socket.AF_UNIX,socket.SOCK_DGRAM); s.sendto(sys.argv[1].encode(), "/dev/log")' \
        "<191>Jan  1 00:00:00 marker: $marker"
    for ((i = 0; i < 200; i++)); do
        grep -q "$marker" "$NSENV_SYSLOG_FILE" && break
        sleep 0.02
    done
    total=$(grep -c -v "main-job-marker-" "$NSENV_SYSLOG_FILE" || true)
    grep -v "main-job-marker-" "$NSENV_SYSLOG_FILE" | tail -n +$((shown_records + 1)) >"$NSENV_WORK/new.jsonl" || true
    echo "system log (facility.priority tag[pid]: text):"
    if [ -s "$NSENV_WORK/new.jsonl" ]; then
        "$python" "$listener" --show "$NSENV_WORK/new.jsonl" | sed 's/^/    /'
    else
        echo "    (no records)"
    fi
    shown_records=$total
    echo "bodies received by https://$NSENV_METRICS_HOST (127.0.0.1:$NSENV_ENDPOINT_PORT):"
    local n=$((shown_bodies + 1)) any=false
    while [ -f "$NSENV_RECORD_DIR/body-$n.bin" ]; do
        echo "    body-$n: $(cat "$NSENV_RECORD_DIR/body-$n.bin")"
        shown_bodies=$n
        n=$((n + 1))
        any=true
    done
    [ "$any" = true ] || echo "    (none)"
}

run_client() {
    local title=$1 status=0
    echo
    echo "=== $title"
    env -u VERBOSEDEBUG "$NSENV_CLIENT" || status=$?
    echo "exit status: $status"
    show_new
}

echo "metrics client: $NSENV_CLIENT"
echo "endpoint: $NSENV_METRICS_URL -> 127.0.0.1:$NSENV_ENDPOINT_PORT (private /etc/hosts)"
echo "identity: license_key=$(cat "$NSENV_CONTROL_DIR/license_key")" \
    "product_id=$(tr -d '\n' <"$NSENV_CONTROL_DIR/product_id")" \
    "server_id=$(tr -d '\n' <"$NSENV_CONTROL_DIR/server_id")," \
    "enabled=$(tr -d '\n' <"$NSENV_CONTROL_DIR/enabled")," \
    "Zimbra: $(cat "$NSENV_ZIMBRA_RELEASE")"

run_client "run 1: first post (no cache yet)"
echo "cache $NSENV_CACHE:"
od -A d -c "$NSENV_CACHE" | sed 's/^/    /'

run_client "run 2: nothing changed"

printf '0\n' >"$NSENV_CONTROL_DIR/enabled"
run_client "run 3: enabled switch flipped to 0"
echo "cache $NSENV_CACHE:"
od -A d -c "$NSENV_CACHE" | sed 's/^/    /'

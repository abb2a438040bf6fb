#!/usr/bin/env bash
# run-transaction-bench.sh BUILD_DIR [benchmark options]: runs BUILD_DIR/bench/ardvex_bench on
# one core inside tests/support/dnsenv.sh (local name servers), with private pattern, control,
# log and Zimbra directories and small list, range, pattern and forgery files. Needs root.
set -euo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
[ $# -ge 1 ] || { echo "usage: $0 BUILD_DIR [benchmark options]" >&2; exit 2; }
build_dir=$(cd "$1" && pwd)
shift
if [ -z "${DNSENV_WORK:-}" ]; then
    exec "$source_dir/tests/support/dnsenv.sh" bash "${BASH_SOURCE[0]}" "$build_dir" "$@"
fi

config=$build_dir/generated/ardvex_config.h
setting() { sed -n "s/^#define $1 \"\(.*\)\"$/\1/p" "$config"; }
dynaregex=$(setting ARDVEX_DYNAREGEX_DIR)
control=$(setting ARDVEX_CONTROL_DIR)
"$source_dir/tests/support/private_dirs.sh" "$DNSENV_WORK/private" "$dynaregex" "$control" \
    "$(setting ARDVEX_LOG_DIR)" "$(setting ARDVEX_ZIMBRA_DIR)" "$(setting ARDVEX_SUITE_BIN_DIR)"
install -D -m 755 "$build_dir/tools/ardvex-secure" "$(setting ARDVEX_SECURE_WRAPPER)"
install -D -m 755 "$source_dir/tools/zimbra-postmap" "$(setting ARDVEX_POSTMAP)"
map=$(setting ARDVEX_LDAP_VMD_MAP)
mkdir -p "$(dirname "$map")"
echo "server_host = ldap://127.0.0.1:389" >"$map"
echo "local.example.test local.example.test" >"$map.table"

# A few dozen patterns per file, as an administrator's would be.
for f in dyna spam confirmed; do
    for i in $(seq 1 40); do echo "^$f-$i-[0-9]+\\.isp$i\\."; done >"$DNSENV_WORK/$f.txt"
    "$build_dir/tools/ardvex-regex-compile" "$DNSENV_WORK/$f.txt" "$dynaregex$f.cregexes" >/dev/null
done
for i in $(seq 1 20); do echo "bank$i.example.test: 192.0.2.0/24, 198.51.100.$i"; done \
    >"${control}valid_domain_ips"
lists=$DNSENV_WORK/lists
mkdir -p "$lists" "$DNSENV_WORK/empty"
for i in $(seq 1 50); do
    echo "*@spam$i.example.test" >>"$lists/from_blacklist"
    echo "friend$i@partner.example.test" >>"$lists/from_whitelist"
    echo "192.0.2.$i" >>"$lists/blocked_ips"
    echo "user$i@local.example.test" >>"$lists/exempt_users"
done
cat >"$DNSENV_SCRIPT" <<'JSON'
{
  "20.113.0.203.in-addr.arpa": {"PTR": {"records": ["@ PTR mail.sender.example.test."]}},
  "mail.sender.example.test": {"A": {"records": ["@ A 203.0.113.20"]}},
  "sender.example.test": {"A": {"records": ["@ A 203.0.113.20"]},
                          "MX": {"records": ["@ MX 10 mail.sender.example.test."]}}
}
JSON
export BENCH_LIST_DIR=$lists/ BENCH_EMPTY_DIR=$DNSENV_WORK/empty/
exec taskset -c 0 "$build_dir/bench/ardvex_bench" "$@"

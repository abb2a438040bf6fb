#!/usr/bin/env bash
# nsenv.sh BUILD_DIR COMMAND [ARG...]: runs COMMAND on a throw-away copy of an ardvex server, so
# the built metrics client runs for real, with its real paths, without touching this machine or
# the network. Needs root. Inside dnsenv.sh's namespaces it adds: the build's metrics host as
# 127.0.0.1 in /etc/hosts; tmpfs over /tmp, /dev (the usual nodes bound back) and the suite's
# and Zimbra's directories; the build's ardvex-secure and ardvex-panel-version, a fake Zimbra
# version command and the identity K, 7, U with the switch on; a listener on /dev/log writing
# each record as a JSON line; and https_endpoint.py on the metrics URL's port of 127.0.0.1,
# recording every body, whose certificate is the client's only trust anchor. COMMAND finds all
# of it through the NSENV_* variables at the end; its exit status is ours.
set -euo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
die() { echo "nsenv.sh: $*" >&2; exit 1; }
if [ -z "${DNSENV_WORK:-}" ]; then
    [ "$(id -u)" -eq 0 ] || die "needs root: it makes mount and network namespaces"
    exec "$source_dir/tests/support/dnsenv.sh" bash "${BASH_SOURCE[0]}" "$@"
fi
[ $# -ge 2 ] || die "usage: nsenv.sh BUILD_DIR COMMAND [ARG...]"
build_dir=$(cd "$1" && pwd)
shift
[ -f "$build_dir/CMakeCache.txt" ] || die "$build_dir is not a configured build directory"

# The suite's paths as this build was configured.
cache_var() {
    local value
    value=$(sed -n "s/^$1:[A-Z]*=//p" "$build_dir/CMakeCache.txt" | head -n 1)
    echo "${value:-$2}"
}
etc_dir=$(cache_var ARDVEX_ETC_DIR /etc/ardvex)
control_dir=$(cache_var ARDVEX_CONTROL_DIR /etc/ardvex/control/)
suite_bin_dir=$(cache_var ARDVEX_SUITE_BIN_DIR /usr/share/ardvex/bin)
log_dir=$(cache_var ARDVEX_LOG_DIR /var/log/ardvex/)
zimbra_dir=$(cache_var ARDVEX_ZIMBRA_DIR /opt/zimbra)
curl_path=$(cache_var ARDVEX_CURL /usr/bin/curl)
metrics_host=$(cache_var ARDVEX_METRICS_HOST metrics.ardvex.example)
metrics_url=$(cache_var ARDVEX_METRICS_URL "https://$metrics_host/store/metrics.php")
ca_file=$(cache_var ARDVEX_METRICS_CA_FILE "")
[[ $metrics_url =~ ://[^/]*:([0-9]+) ]] && endpoint_port=${BASH_REMATCH[1]} || endpoint_port=443
printf '127.0.0.1\t%s\n' "$metrics_host" >>/etc/hosts

# A private /tmp. The name servers' files, and a source tree or build directory under /tmp (a
# CI checkout, say), are carried over at the same paths through a holding mount.
keep=("$DNSENV_WORK")
for d in "$source_dir" "$build_dir"; do [[ $d/ == /tmp/* ]] && keep+=("$d"); done
mount -t tmpfs nsenv-hold /mnt
for i in "${!keep[@]}"; do mkdir "/mnt/$i" && mount --bind "${keep[$i]}" "/mnt/$i"; done
mount -t tmpfs -o mode=1777 nsenv-tmp /tmp
for i in "${!keep[@]}"; do mkdir -p "${keep[$i]}" && mount --bind "/mnt/$i" "${keep[$i]}"; done
umount -l /mnt
work=$DNSENV_WORK/nsenv
mkdir -p "$work/hostdev" "$work/records"

# /dev: a fresh tmpfs, so that /dev/log can be ours; the usual nodes link to the machine's.
mount --bind /dev "$work/hostdev"
mount -t tmpfs -o mode=755,nosuid nsenv-dev /dev
mkdir /dev/.host /dev/shm
mount --move "$work/hostdev" /dev/.host
mount -t tmpfs -o mode=1777,nosuid,nodev nsenv-shm /dev/shm
for node in null zero full random urandom tty pts fd stdin stdout stderr; do
    ln -s ".host/$node" /dev
done

# The suite's directories, programs, identity and switch.
dirs=("$etc_dir" "$control_dir" "$suite_bin_dir" "$log_dir" "$zimbra_dir")
bash "$source_dir/tests/support/private_dirs.sh" "$work/private" "${dirs[@]}"
mkdir -p "$control_dir" "$suite_bin_dir" "$log_dir" "$zimbra_dir/bin"
chmod 755 "${control_dir%/}" "$suite_bin_dir"
for tool in ardvex-secure ardvex-panel-version; do
    [ -x "$build_dir/tools/$tool" ] || die "$build_dir/tools/$tool is missing: build it first"
    install -m 755 "$build_dir/tools/$tool" "$suite_bin_dir/$tool"
done
# Zimbra's version command as far as the suite uses it: it prints $NSENV_ZIMBRA_RELEASE, and
# every call is appended to $NSENV_ZMCONTROL_CALLS.
printf 'Release 8.8.15_GA_3869.UBUNTU16.64 UBUNTU16_64 FOSS edition, Patch 8.8.15_P8.\n' \
    >"$work/zimbra-release"
cat >"$zimbra_dir/bin/zmcontrol" <<ZMCONTROL
#!/bin/sh
echo "\$*" >>'$work/zmcontrol.calls'
[ "\${1:-}" = -v ] || { echo "zmcontrol: only -v is known here" >&2; exit 1; }
cat '$work/zimbra-release'
ZMCONTROL
chmod 755 "$zimbra_dir/bin/zmcontrol"
printf 'K' >"$control_dir/license_key"
for kv in product_id=7 server_id=U enabled=1; do echo "${kv#*=}" >"$control_dir/${kv%=*}"; done

# The endpoint's certificate is the client's only trust anchor: at the build's CA file, or as
# the whole system store when the build trusts that.
bash "$source_dir/tests/support/make_cert.sh" "$work/cert" "$metrics_host" >/dev/null 2>&1 ||
    die "tests/support/make_cert.sh failed"
trust=/etc/ssl/certs/ca-certificates.crt
if [ -n "$ca_file" ]; then
    trust=$ca_file
    for d in "${dirs[@]}" -; do [[ $ca_file == "${d%/}"/* ]] && break; done
    [ "$d" != - ] || die "the build's CA file $ca_file is outside the private directories"
    mkdir -p "$(dirname "$ca_file")"
else
    bash "$source_dir/tests/support/private_dirs.sh" "$work/private" /etc/ssl/certs
fi
cp "$work/cert/cert.pem" "$trust"

# The services, each started in the background and awaited until its output says "ready".
pids=()
trap 'kill "${pids[@]}" 2>/dev/null || true; wait' EXIT
start_service() {
    local what=$1 out=$2 ready=$3
    shift 3
    "$@" >"$out" 2>&1 &
    pids+=($!)
    wait_until grep -q -- "^$ready" "$out" || { cat "$out" >&2; die "$what did not start"; }
}
python=${PYTHON:-python3}
start_service "the syslog listener" "$work/syslog.out" ready \
    "$python" "$source_dir/tests/integration/syslog_listener.py" /dev/log "$work/syslog.jsonl"
start_service "the HTTPS endpoint" "$work/endpoint.out" "ready $endpoint_port" \
    "$python" "$source_dir/tests/support/https_endpoint.py" --bind 127.0.0.1 \
    --port "$endpoint_port" --cert "$work/cert/cert.pem" --key "$work/cert/key.pem" \
    --record-dir "$work/records"

export NSENV_WORK=$work NSENV_SOURCE_DIR=$source_dir NSENV_CURL=$curl_path
export NSENV_CLIENT=$build_dir/metrics_client/ardvex-metrics-client
export NSENV_CONTROL_DIR=$control_dir NSENV_CACHE=${control_dir%/}/.metrics.cache
export NSENV_SUITE_BIN_DIR=$suite_bin_dir NSENV_ZIMBRA_DIR=$zimbra_dir
export NSENV_ZIMBRA_RELEASE=$work/zimbra-release NSENV_ZMCONTROL_CALLS=$work/zmcontrol.calls
export NSENV_METRICS_HOST=$metrics_host NSENV_METRICS_URL=$metrics_url
export NSENV_SYSLOG_FILE=$work/syslog.jsonl NSENV_RECORD_DIR=$work/records
export NSENV_CERT=$work/cert/cert.pem NSENV_KEY=$work/cert/key.pem NSENV_TRUST=$trust
export NSENV_ENDPOINT_PORT=$endpoint_port NSENV_ENDPOINT_PID=${pids[-1]}
"$@"

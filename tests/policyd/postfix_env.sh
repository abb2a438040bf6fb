#!/usr/bin/env bash
# postfix_env.sh: runs a command beside a real Postfix whose smtpd asks ardvex-policyd, all
# inside the DNS fixture's private namespaces (run it through tests/support/dnsenv.sh).
#
#   dnsenv.sh postfix_env.sh BUILD_DIR COMMAND [ARG...]
#
# Sets up: an interface of documentation addresses (a dummy one, or one end of a veth pair
# where the kernel has no dummy driver): 192.0.2.25 for smtpd, 198.51.100.20-39 for clients;
# a private copy of /etc (settings in $PF_SETTINGS, lists under /etc/ardvex/lists) and
# private tmpfs over /run, /var/log (the message log; Postfix's log /var/log/postfix.log) and
# the queue and data directories; ardvex-policyd on /run/ardvex/policyd.sock as nobody, its own
# lines in $PF_WORK/policyd.log; Postfix relaying example.test to the discard transport.
# The command finds everything through PF_* variables; its exit status is this script's.
set -euo pipefail
die() {
    echo "postfix_env.sh: $*" >&2
    exit 1
}
[ $# -ge 2 ] || die "usage: postfix_env.sh BUILD_DIR COMMAND [ARG...]"
build_dir=$(cd "$1" && pwd)
shift
[ -n "${DNSENV_WORK:-}" ] || die "run me through tests/support/dnsenv.sh"
command -v postfix >/dev/null || die "postfix is missing (Debian package postfix)"

work=$DNSENV_WORK/postfix
mkdir -p "$work"

# --- addresses ---------------------------------------------------------------------------
if ip link add ardvex0 type dummy 2>/dev/null; then
    :
else
    ip link add ardvex0 type veth peer name ardvex1
    ip link set ardvex1 up
fi
ip link set ardvex0 up
ip addr add 192.0.2.25/24 dev ardvex0
for i in $(seq 20 39); do ip addr add "198.51.100.$i/24" dev ardvex0; done

# --- private directories -------------------------------------------------------------------
# A private copy of /etc (with the fixture's resolver files in it), so that /etc/postfix and
# /etc/ardvex can be written without touching this machine; the same for /run and /var/log.
cp -a /etc "$work/etc-root"
mount --bind "$work/etc-root" /etc
for dir in /run /var/log /var/spool/postfix /var/lib/postfix; do
    mount -t tmpfs -o mode=755 pfenv "$dir"
done
chown postfix:postfix /var/lib/postfix
rm -rf /etc/ardvex
mkdir -p /etc/ardvex/lists /run/ardvex

cp /usr/share/postfix/master.cf.dist /etc/postfix/master.cf
cat >/etc/postfix/main.cf <<'CONF'
compatibility_level = 3.6
myhostname = mx.example.test
mydomain = example.test
inet_interfaces = 192.0.2.25
inet_protocols = ipv4
mydestination =
relay_domains = example.test
mynetworks = 127.0.0.0/8
alias_maps =
alias_database =
local_recipient_maps =
default_transport = discard:
relay_transport = discard:
local_transport = discard:
maillog_file = /var/log/postfix.log
smtpd_relay_restrictions = permit_mynetworks,
    permit_sasl_authenticated, reject_unauth_destination
smtpd_recipient_restrictions =
    check_policy_service unix:/run/ardvex/policyd.sock
smtpd_policy_service_request_limit = 0
CONF
# Every service outside a chroot: the policy socket lives in /run.
postconf -F '*/*/chroot = n'
postconf -M -e 'postlog/unix-dgram=postlog unix-dgram n - n - 1 postlogd'
postfix post-install create-missing >/dev/null 2>&1 || true
postfix check 2>&1 | grep -v "^postfix/postfix-script: warning: symlink leaves directory" || true

# --- the service ---------------------------------------------------------------------------
export PF_SETTINGS=/etc/ardvex/policyd.conf
echo "user = nobody" >"$PF_SETTINGS"
policyd_pid=
cleanup() {
    postfix stop >/dev/null 2>&1 || true
    [ -z "$policyd_pid" ] || kill "$policyd_pid" 2>/dev/null || true
    wait 2>/dev/null || true
}
trap cleanup EXIT
: >"$work/policyd.log"
export PF_POLICYD_LOG=$work/policyd.log
"$build_dir/tools/ardvex-policyd" --stderr 2>>"$work/policyd.log" &
policyd_pid=$!
for _ in $(seq 100); do
    grep -q "ready:" "$work/policyd.log" && break
    sleep 0.05
done
grep -q "ready:" "$work/policyd.log" || { cat "$work/policyd.log" >&2; die "ardvex-policyd did not start"; }

postfix start >/dev/null 2>&1 || { cat /var/log/postfix.log >&2 || true; die "postfix did not start"; }
for _ in $(seq 100); do
    (exec 3<>/dev/tcp/192.0.2.25/25) 2>/dev/null && break
    sleep 0.05
done

export PF_WORK=$work PF_POLICYD_PID=$policyd_pid PF_BUILD_DIR=$build_dir
export PF_ADMIN=$build_dir/tools/ardvex-admin
status=0
"$@" || status=$?
exit "$status"

#!/usr/bin/env bash
# postfix_env.sh BUILD_DIR COMMAND [ARG...], run through dnsenv.sh: runs COMMAND beside a real
# Postfix whose smtpd asks ardvex-policyd. Sets up: an interface ardvex0 (a dummy, or one end of
# a veth pair) with 192.0.2.25 for smtpd and 198.51.100.20-39 for clients; a private copy of /etc
# (settings in $PF_SETTINGS, lists under /etc/ardvex/lists); private tmpfs over /run, /var/log
# (the message log; Postfix's /var/log/postfix.log) and Postfix's queue and data directories;
# ardvex-policyd on /run/ardvex/policyd.sock as nobody, its lines in $PF_POLICYD_LOG; Postfix
# relaying example.test to the discard transport. COMMAND also gets PF_WORK, PF_POLICYD_PID,
# PF_BUILD_DIR and PF_ADMIN; its exit status is ours.
set -euo pipefail
die() { echo "postfix_env.sh: $*" >&2; exit 1; }
[ $# -ge 2 ] || die "usage: postfix_env.sh BUILD_DIR COMMAND [ARG...]"
[ -n "${DNSENV_WORK:-}" ] || die "run me through tests/support/dnsenv.sh"
command -v postfix >/dev/null || die "postfix is missing (Debian package postfix)"
build_dir=$(cd "$1" && pwd)
shift
work=$DNSENV_WORK/postfix
mkdir -p "$work"

ip link add ardvex0 type dummy 2>/dev/null || ip link add ardvex0 type veth peer name ardvex1
ip link set ardvex1 up 2>/dev/null || true  # the veth pair's other end, if there is one
ip link set ardvex0 up
ip addr add 192.0.2.25/24 dev ardvex0
for i in $(seq 20 39); do ip addr add "198.51.100.$i/24" dev ardvex0; done

# /etc/postfix and /etc/ardvex are written in a private copy of /etc, the fixture's resolver
# files with it.
cp -a /etc "$work/etc-root"
mount --bind "$work/etc-root" /etc
bash "$DNSENV_SOURCE_DIR/tests/support/private_dirs.sh" "$work/private" \
    /run /var/log /var/spool/postfix /var/lib/postfix
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
default_transport = discard:
relay_transport = discard:
local_transport = discard:
maillog_file = /var/log/postfix.log
smtpd_relay_restrictions = permit_mynetworks, reject_unauth_destination
smtpd_recipient_restrictions = check_policy_service unix:/run/ardvex/policyd.sock
smtpd_policy_service_request_limit = 0
CONF
# Every service outside a chroot: the policy socket lives in /run.
postconf -F '*/*/chroot = n'
postconf -M -e 'postlog/unix-dgram=postlog unix-dgram n - n - 1 postlogd'
postfix post-install create-missing >/dev/null 2>&1 || true

export PF_SETTINGS=/etc/ardvex/policyd.conf PF_POLICYD_LOG=$work/policyd.log
echo "user = nobody" >"$PF_SETTINGS"
"$build_dir/tools/ardvex-policyd" --stderr 2>"$PF_POLICYD_LOG" &
export PF_POLICYD_PID=$!
trap 'set +e; postfix stop >/dev/null 2>&1; kill "$PF_POLICYD_PID" 2>/dev/null; wait' EXIT
wait_until grep -q "ready:" "$PF_POLICYD_LOG" ||
    { cat "$PF_POLICYD_LOG" >&2; die "ardvex-policyd did not start"; }
postfix start >/dev/null 2>&1 || { cat /var/log/postfix.log >&2; die "postfix did not start"; }
wait_until bash -c 'exec 3<>/dev/tcp/192.0.2.25/25' || die "smtpd does not listen"

export PF_WORK=$work PF_BUILD_DIR=$build_dir PF_ADMIN=$build_dir/tools/ardvex-admin
"$@"

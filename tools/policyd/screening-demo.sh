#!/usr/bin/env bash
# screening-demo.sh: the mail-screening part of ./dev.sh run. Inside postfix_env.sh (a real
# Postfix on 192.0.2.25 asking ardvex-policyd, the DNS fixture, swaks clients on
# 198.51.100.x) it sends a few mails and shows what the service decided and what it recorded.
set -euo pipefail

cat >>"$PF_SETTINGS" <<'CONF'
block_lists_zones = bl.test
inbound_limit = 2
CONF
echo "vip@example.test" >/etc/ardvex/lists/exempt_users
kill -HUP "$PF_POLICYD_PID"
sleep 0.3

echo "Postfix (smtpd on 192.0.2.25) asks ardvex-policyd about every recipient:"
echo "    smtpd_recipient_restrictions = check_policy_service unix:/run/ardvex/policyd.sock"
echo "settings (/etc/ardvex/policyd.conf):"
sed 's/^/    /' "$PF_SETTINGS"
echo "test DNS: 198.51.100.21 is listed by the block list bl.test; vip@example.test is whitelisted"

send() { # TITLE CLIENT HELO FROM TO
    local reply
    reply=$({ swaks --server 192.0.2.25 --local-interface "$2" --helo "$3" --from "$4" \
        --to "$5" --timeout 30 2>&1 || true; } | grep -A1 -- "-> RCPT TO:" | tail -n 1 | sed -E 's/^<[-*]+ +//')
    echo
    echo "=== $1"
    echo "    $2 ($3) MAIL FROM:<$4> RCPT TO:<$5>"
    echo "    SMTP reply: $reply"
    case $reply in
        2*) accepted=$((accepted + 1)) ;;
        5*) rejected=$((rejected + 1)) ;;
        4*) deferred=$((deferred + 1)) ;;
    esac
}
accepted=0 rejected=0 deferred=0
send "an ordinary sender: accepted" 198.51.100.20 mail.good.test a@good.test u@example.test
send "a client on the block list: rejected" 198.51.100.21 mail.listed.test a@listed.test u@example.test
send "the same client to a whitelisted recipient" 198.51.100.21 mail.listed.test a@listed.test vip@example.test
for i in 1 2 3; do
    send "message $i of a busy client (limit 2 per hour): the third is deferred" \
        198.51.100.24 mail.busy.test a@busy.test u@example.test
done

echo
echo "=== the message log, /var/log/ardvex/axlog (deferrals are not logged: the mail comes back)"
sed 's/^/    /' /var/log/ardvex/axlog
echo
echo "=== ardvex-admin counters /var/log/ardvex"
"$PF_ADMIN" counters /var/log/ardvex | sed 's/^/    /'
echo
echo "=== ardvex-admin judge: why the listed client is rejected, rule by rule"
"$PF_ADMIN" judge --client-address 198.51.100.21 --reverse-client-name mail.listed.test \
    --helo mail.listed.test --sender a@listed.test --recipient u@example.test |
    grep -v " off *$" | sed 's/^/    /' || true
echo "    (rules set to off are left out)"
echo
echo "=== in short: $accepted mails accepted (one only because its recipient is whitelisted)," \
    "$rejected rejected with the rule's notice, $deferred deferred for sending too fast;" \
    "the accepted and rejected ones are in the message log and its counters."

#!/usr/bin/env bash
# scenarios.sh: a table of SMTP transactions from documentation addresses, sent by swaks to a
# real Postfix that asks ardvex-policyd (run inside postfix_env.sh). Each row checks the SMTP
# reply to RCPT TO and the message log line it leaves; at the end the hourly counters must
# add up. Rows that need an engine rule this build does not have yet are reported and skipped.
set -euo pipefail
fail=0
ip addr add 198.51.100.7/24 dev ardvex0

cat >>"$PF_SETTINGS" <<'CONF'
block_lists_zones = bl.test
inbound_limit = 2
CONF
echo "vip@example.test" >/etc/ardvex/lists/exempt_users
echo "198.51.100.26" >/etc/ardvex/lists/blocked_ips
kill -HUP "$PF_POLICYD_PID"
sleep 0.3

# rule: the engine rule a row depends on has a check in this build.
has_rule() {
    { "$PF_ADMIN" judge --client-address 10.0.0.1 --helo mail.good.test --sender a@good.test \
        --recipient u@example.test -c /nonexistent 2>/dev/null || true; } |
        awk -v r="$1" '$1 == r' | grep -qv "no check in this build"
}

log_lines() { if [ -f /var/log/ardvex/axlog ]; then wc -l </var/log/ardvex/axlog; else echo 0; fi; }

expected_ham=0 expected_spam=0 expected_exempt=0
# client | helo | sender | recipient | reply code | reply text | log type | needed rule
rows=(
    "198.51.100.20|mail.good.test|a@good.test|u@example.test|250||HAM|"
    "198.51.100.21|mail.listed.test|a@listed.test|u@example.test|550 5.7.1|Server IP 198.51.100.21 listed as abusive.|SPAM[block_lists]|"
    "198.51.100.21|mail.listed.test|a@listed.test|vip@example.test|250||EXEMPT[to_whitelist]|to_whitelist"
    "198.51.100.22|mail.nowhere.test|a@nowhere.test|u@example.test|550 5.7.1|Your server IP address [198.51.100.22] is missing a reverse DNS entry.|SPAM[check_ip_reverse_dns]|check_ip_reverse_dns"
    "198.51.100.26|mail.blocked.test|a@blocked.test|u@example.test|550 5.7.1|Your email is rejected -- you are on the recipient's blacklist.|SPAM[ip_blacklist]|ip_blacklist"
    "198.51.100.24|mail.busy.test|a@busy.test|u@example.test|250||HAM|"
    "198.51.100.24|mail.busy.test|a@busy.test|u@example.test|250||HAM|"
    "198.51.100.24|mail.busy.test|a@busy.test|u@example.test|450 4.7.1|Server 198.51.100.24 has sent too much mail. Try again later.||"
    "198.51.100.7|mail.slow.test|a@slow.test|u@example.test|250||HAM|"
    "reload dns_failure = defer"
    "198.51.100.7|mail.slow.test|a@slow.test|u@example.test|450 4.4.3|Temporary DNS failure while checking||check_ip_reverse_dns"
)
for row in "${rows[@]}"; do
    if [[ $row == reload* ]]; then
        echo "${row#reload }" >>"$PF_SETTINGS"
        kill -HUP "$PF_POLICYD_PID"
        sleep 0.3
        continue
    fi
    IFS='|' read -r client helo from to code text logged needs <<<"$row"
    if [ -n "$needs" ] && ! has_rule "$needs"; then
        echo "SKIP $client -> $to: this build has no check for $needs"
        continue
    fi
    before=$(log_lines)
    out=$(swaks --server 192.0.2.25 --local-interface "$client" --helo "$helo" --from "$from" \
        --to "$to" --timeout 30 2>&1 || true)
    got=$(grep -A1 -- "-> RCPT TO:" <<<"$out" | tail -n 1 | sed -E 's/^<[-*]+ +//')
    # Postfix puts "<rcpt>: Recipient address rejected: " between the code and the text.
    if [[ $got != "$code "* || $got != *"$text"* ]]; then
        echo "FAIL $client -> $to: RCPT answered [$got], expected [$code ...$text...]"
        fail=1
        continue
    fi
    after=$(log_lines)
    line=$(tail -n 1 /var/log/ardvex/axlog 2>/dev/null || true)
    if [ -z "$logged" ]; then
        if [ "$after" != "$before" ]; then
            echo "FAIL $client -> $to: a deferral left a message log line: $line"
            fail=1
            continue
        fi
    elif [ "$after" != $((before + 1)) ] || [[ $line != *"ardvex-policyd["*"]: $logged: "*"ip=[$client:"*"rcpt=<$to>"* ]]; then
        echo "FAIL $client -> $to: message log line [$line], expected type $logged"
        fail=1
        continue
    fi
    case $logged in
        HAM) expected_ham=$((expected_ham + 1)) ;;
        SPAM*) expected_spam=$((expected_spam + 1)) ;;
        EXEMPT*) expected_exempt=$((expected_exempt + 1)) ;;
    esac
    echo "ok   $client -> $to: $got"
done

# The hourly counters hold every logged verdict (one hour boundary may split them: sum rows).
read -r ham spam exempt < <("$PF_ADMIN" counters /var/log/ardvex |
    awk '/^HOUR/ {h = 1; next} h {ham += $3; spam += $4; ex += $5} END {print ham+0, spam+0, ex+0}')
if [ "$ham $spam $exempt" != "$expected_ham $expected_spam $expected_exempt" ]; then
    echo "FAIL counters: ham spam exempt = $ham $spam $exempt, expected $expected_ham $expected_spam $expected_exempt"
    "$PF_ADMIN" counters /var/log/ardvex || true
    fail=1
else
    echo "ok   counters: ham $ham, spam $spam, exempt $exempt"
fi
if [ "$fail" -ne 0 ]; then
    echo "--- ardvex-policyd ---"
    cat "$PF_POLICYD_LOG"
    echo "--- postfix ---"
    tail -n 40 /var/log/postfix.log
fi
exit "$fail"

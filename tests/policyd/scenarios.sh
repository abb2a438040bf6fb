#!/usr/bin/env bash
# scenarios.sh: a table of SMTP transactions from documentation addresses, sent by swaks to a
# real Postfix that asks ardvex-policyd (run inside postfix_env.sh). Each row checks the SMTP
# reply to RCPT TO and the message log line it leaves; at the end the hourly counters must
# add up.
set -euo pipefail
failed=0 log=/var/log/ardvex/axlog
fail() { echo "FAIL $*"; failed=1; }
declare -A counted=([HAM]=0 [SPAM]=0 [EXEMPT]=0)
reload() { echo "$1" >>"$PF_SETTINGS" && kill -HUP "$PF_POLICYD_PID" && sleep 0.3; }
log_lines() { if [ -f $log ]; then wc -l <$log; else echo 0; fi; }

ip addr add 198.51.100.7/24 dev ardvex0
echo "vip@example.test" >/etc/ardvex/lists/exempt_users
echo "198.51.100.26" >/etc/ardvex/lists/blocked_ips
reload $'block_lists_zones = bl.test\ninbound_limit = 2'
# client | helo | sender | recipient | reply code | reply text | log type (none: a deferral)
rows=(
    "198.51.100.20|mail.good.test|a@good.test|u@example.test|250||HAM"
    "198.51.100.21|mail.listed.test|a@listed.test|u@example.test|550 5.7.1|Server IP 198.51.100.21 listed as abusive.|SPAM[block_lists]"
    "198.51.100.21|mail.listed.test|a@listed.test|vip@example.test|250||EXEMPT[to_whitelist]"
    "198.51.100.22|mail.nowhere.test|a@nowhere.test|u@example.test|550 5.7.1|Your server IP address [198.51.100.22] is missing a reverse DNS entry.|SPAM[check_ip_reverse_dns]"
    "198.51.100.26|mail.blocked.test|a@blocked.test|u@example.test|550 5.7.1|Your email is rejected -- you are on the recipient's blacklist.|SPAM[ip_blacklist]"
    "198.51.100.24|mail.busy.test|a@busy.test|u@example.test|250||HAM"
    "198.51.100.24|mail.busy.test|a@busy.test|u@example.test|250||HAM"
    "198.51.100.24|mail.busy.test|a@busy.test|u@example.test|450 4.7.1|Server 198.51.100.24 has sent too much mail. Try again later.|"
    "198.51.100.7|mail.slow.test|a@slow.test|u@example.test|250||HAM"
    "reload dns_failure = defer"
    "198.51.100.7|mail.slow.test|a@slow.test|u@example.test|450 4.4.3|Temporary DNS failure while checking|"
)
for row in "${rows[@]}"; do
    [[ $row != reload* ]] || { reload "${row#reload }"; continue; }
    IFS='|' read -r client helo from to code text logged <<<"$row"
    before=$(log_lines)
    out=$(swaks --server 192.0.2.25 --local-interface "$client" --helo "$helo" --from "$from" \
        --to "$to" --timeout 30 2>&1 || true)
    got=$(grep -A1 -- "-> RCPT TO:" <<<"$out" | tail -n 1 | sed -E 's/^<[-*]+ +//')
    line=$(tail -n 1 $log 2>/dev/null || true) added=$(($(log_lines) - before))
    # Postfix puts "<rcpt>: Recipient address rejected: " between the code and the text.
    if [[ $got != "$code "* || $got != *"$text"* ]]; then
        fail "$client -> $to: RCPT answered [$got], expected [$code ...$text...]"
    # One message log line for a verdict, none for a deferral.
    elif [ "$added" != $((${#logged} > 0)) ] ||
        [[ -n $logged && $line != *"ardvex-policyd["*"]: $logged: "*"ip=[$client:"*"rcpt=<$to>"* ]]; then
        fail "$client -> $to: $added message log lines, the last [$line]; expected ${logged:-none}"
    else
        kind=${logged%%\[*}
        [ -z "$kind" ] || counted[$kind]=$((counted[$kind] + 1))
        echo "ok   $client -> $to: $got"
    fi
done

# The hourly counters hold every logged verdict (one hour boundary may split them: sum rows).
read -r ham spam exempt < <("$PF_ADMIN" counters /var/log/ardvex |
    awk '/^HOUR/ {h = 1; next} h {ham += $3; spam += $4; ex += $5} END {print ham+0, spam+0, ex+0}')
want="${counted[HAM]} ${counted[SPAM]} ${counted[EXEMPT]}"
if [ "$ham $spam $exempt" = "$want" ]; then
    echo "ok   counters: ham $ham, spam $spam, exempt $exempt"
else
    fail "counters: ham spam exempt = $ham $spam $exempt, expected $want"
    "$PF_ADMIN" counters /var/log/ardvex || true
fi
if [ "$failed" -ne 0 ]; then
    echo "--- ardvex-policyd ---"
    cat "$PF_POLICYD_LOG"
    echo "--- postfix ---"
    tail -n 40 /var/log/postfix.log
fi
exit "$failed"

#!/usr/bin/env bash
# What a spoofing flood sends: 64 routers on the link (as many as solicd's cache holds), each
# with random M and O flags, reachable time and retrans timer, so that nearly every pair
# disagrees. The health answer stays whole: `solicctl health --json` prints a document with every
# router, the 64 conflicts solicd keeps and the count of the rest; `solicctl health` says what was
# left out; `solicctl metrics` is read by a real OpenMetrics parser and stays under 1 MiB; each
# answers within 1 s (its --timeout).
source "$(dirname "$0")/e2e_lib.sh"
[ -x /usr/bin/python3 ] && /usr/bin/python3 -c 'import prometheus_client' 2>/dev/null ||
    { echo "skipped: python3-prometheus-client is not installed (scripts/install-deps)"; exit 77; }
check=${SOLICD_SRC:?}/tests/unit/openmetrics_check.py
ROUTERS=64
ROUNDS=2

lab_up
# Every router's address, added at once and then waited for: a tentative one cannot send yet.
for ((i = 1; i <= ROUTERS; i++)); do
    ip -n "$RTR" addr add "fe80::f:$(printf %x "$i")/64" dev "$IR" nodad
done
for try in $(seq 1 100); do
    ! ip -n "$RTR" -6 -o addr show dev "$IR" | grep -q tentative && break
    [ "$try" -lt 100 ] || fail "addresses on $IR stay tentative"
    sleep 0.1
done
start_solicd
wait_ready 20

# The same flood every run.
RANDOM=22
flag_words=(- M O MO)
sent=0
for ((round = 0; round < ROUNDS; round++)); do
    for ((i = 1; i <= ROUTERS; i++)); do
        send_ra "fe80::f:$(printf %x "$i")" lifetime=1800 "flags=${flag_words[RANDOM % 4]}" \
            "reachable=$((RANDOM * 100 + 1))" "retrans=$((RANDOM + 1))"
        sent=$((sent + 1))
    done
done
wait_counter rxRa "$sent" 30

"$SOLICCTL" health "$DAEMON_MBOX" --json --timeout 1 >"$WORK/health.json" 2>"$WORK/health.err" ||
    fail "health --json: $(cat "$WORK/health.err")"
jq -e --argjson routers "$ROUTERS" '.version == 1 and (.routers | length) == $routers and
    ([.routers[].conflicts[]] | length) == 2 * 64 and .conflictsDropped > 0' "$WORK/health.json" >/dev/null ||
    fail "health --json: $(head -c 2000 "$WORK/health.json")"
"$SOLICCTL" health "$DAEMON_MBOX" --timeout 1 >"$WORK/health.out" 2>"$WORK/health.err" ||
    fail "health: $(cat "$WORK/health.err")"
dropped=$(jq .conflictsDropped "$WORK/health.json")
sed -n 2p "$WORK/health.out" | grep -Eqx "Conflicts: 64 kept, [0-9]+ more disagreements found and not kept" ||
    fail "what health left out: $(sed -n 2p "$WORK/health.out")"

"$SOLICCTL" metrics "$DAEMON_MBOX" --timeout 1 >"$WORK/metrics.txt" 2>"$WORK/metrics.err" ||
    fail "metrics: $(cat "$WORK/metrics.err")"
size=$(wc -c <"$WORK/metrics.txt")
[ "$size" -lt $((1024 * 1024)) ] || fail "metrics of $size bytes"
/usr/bin/python3 "$check" "$WORK/metrics.txt" >"$WORK/metrics.parsed" || fail "metrics do not parse"
[ "$(grep -c '^gauge solicd_router_conflicts{' "$WORK/metrics.parsed")" = $((2 * 64)) ] ||
    fail "conflicts in the metrics: $(grep -c '^gauge solicd_router_conflicts{' "$WORK/metrics.parsed")"
not_kept=$(sed -nE 's/^counter solicd_router_conflicts_dropped_total\{\} ([0-9]+)(\.0)?$/\1/p' "$WORK/metrics.parsed")
[ -n "$not_kept" ] || fail "no count of the conflicts not kept in the metrics"
[ "$not_kept" = "$dropped" ] || fail "the metrics count $not_kept conflicts not kept, health $dropped"

alive "$SOLICD_PID" || fail "solicd ended"
echo "PASS: $sent RAs from $ROUTERS routers; $dropped disagreements not kept; metrics of $size bytes"

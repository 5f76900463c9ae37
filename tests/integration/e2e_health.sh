#!/usr/bin/env bash
# The routers' health end to end, with an LTTng session recording the daemon: radvd (M flag set)
# and a crafted router (M flag clear) on one link give the conflict trace once, with its exact
# text, and both routers appear in `solicctl health` (the crafted RAs, without options, counted
# as drops of their source); the crafted router sending every second,
# pausing 6 s and sending again gives the gap trace; `solicctl metrics` is read by a real
# OpenMetrics parser and carries the expected values.
source "$(dirname "$0")/tracing_lib.sh"
source "$(dirname "$0")/e2e_lib.sh"
command -v radvd >/dev/null || { echo "skipped: radvd is not installed (scripts/install-deps)"; exit 77; }
for tool in lttng lttng-sessiond babeltrace2; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed (scripts/install-deps)"; exit 77; }
done
[ -x /usr/bin/python3 ] && /usr/bin/python3 -c 'import prometheus_client' 2>/dev/null ||
    { echo "skipped: python3-prometheus-client is not installed (scripts/install-deps)"; exit 77; }
check=${SOLICD_SRC:?}/tests/unit/openmetrics_check.py

session=solicd-health-$RUN
TRACE_SESSION=$session
trap 'stop_tracing; cleanup' EXIT

lab_up
# radvd keeps to its own address: the crafted router's, added later, is not its to take.
start_radvd "
    AdvSendAdvert on;
    MinRtrAdvInterval 3;
    MaxRtrAdvInterval 4;
    AdvManagedFlag on;
    AdvDefaultLifetime 600;
    AdvRASrcAddress {
        $LL_R;
    };"
start_session_daemon
start_traced_solicd "$session" 'com_orvane_kt_solicd:INFO'
wait_ready 30
wait_show "address: $LL_R, .*flags: 0x2}" 20

# The crafted router: every second five times, then 6 s of silence, then once more.
router_address fe80::b
for i in 1 2 3 4 5 6; do
    send_ra fe80::b lifetime=600
    sleep 1
done
sleep 5
send_ra fe80::b lifetime=600
sleep 0.5

"$SOLICCTL" health "$DAEMON_MBOX" >"$WORK/health.out" 2>"$WORK/health.err" || fail "health: $(cat "$WORK/health.err")"
"$SOLICCTL" health "$DAEMON_MBOX" --json >"$WORK/health.json" || fail "health --json"
"$SOLICCTL" metrics "$DAEMON_MBOX" >"$WORK/metrics.txt" || fail "metrics"
lttng stop "$session" >/dev/null
lttng destroy "$session" >/dev/null

# The traces: one record per line, message only, this daemon's.
babeltrace2 "$WORK/trace" >"$WORK/babeltrace.log"
sed -nE "s/^.* com_orvane_kt_solicd:INFO: \{ cpu_id = [0-9]+ \}, \{ vpid = $SOLICD_PID \}, \{ location = \"[^\"]*\", category = \"ADDR_IPV6\", message = \"((check|noteArrival|onRa)\(\): .*)\" \}$/\1/p" \
    "$WORK/babeltrace.log" >"$WORK/health-traces.out"
conflict="check(): [$DAEMON_MBOX] Router fe80::b disagrees with router $LL_R on M flag: 0 vs 1"
[ "$(grep -cxF "$conflict" "$WORK/health-traces.out")" = 1 ] ||
    fail "the conflict trace is not there once: $(cat "$WORK/health-traces.out")"
grep -Eqx "noteArrival\(\): \[$DAEMON_MBOX\] Router fe80::b sent no RA for [67] s, usually every 1 s" "$WORK/health-traces.out" ||
    fail "no gap trace: $(cat "$WORK/health-traces.out")"
[ "$(wc -l <"$WORK/health-traces.out")" = 2 ] || fail "health traces beyond the two events: $(cat "$WORK/health-traces.out")"

# For people: both routers, the conflict from each side, the gap.
grep -Eq "^$LL_R +STATE_(NEW|UPDATED) +[0-9]+ +[0-9]+s ago +every [0-9]+s +0 +- +M flag: 1 here, 0 at fe80::b$" "$WORK/health.out" ||
    fail "radvd's router in health: $(cat "$WORK/health.out")"
grep -Eq "^fe80::b +STATE_(NEW|UPDATED) +7 +[0-9]s ago +every 1s +1 +no_options 7 +M flag: 0 here, 1 at $LL_R$" "$WORK/health.out" ||
    fail "the crafted router in health: $(cat "$WORK/health.out")"
jq -e '.version == 1 and (.routers | length) == 2' "$WORK/health.json" >/dev/null || fail "health --json: $(cat "$WORK/health.json")"

# For scrapers: what a real parser reads.
/usr/bin/python3 "$check" "$WORK/metrics.txt" >"$WORK/metrics.parsed" || fail "metrics do not parse: $(cat "$WORK/metrics.txt")"
grep -qx "counter solicd_ra_received_total{router=fe80::b} 7.0" "$WORK/metrics.parsed" ||
    grep -qx "counter solicd_ra_received_total{router=fe80::b} 7" "$WORK/metrics.parsed" ||
    fail "RAs of fe80::b: $(grep fe80::b "$WORK/metrics.parsed")"
grep -Eqx "counter solicd_ra_gaps_total\{router=fe80::b\} 1(\.0)?" "$WORK/metrics.parsed" || fail "gaps of fe80::b"
grep -Eqx "gauge solicd_router_conflicts\{field=M flag,peer=$LL_R,router=fe80::b\} 1(\.0)?" "$WORK/metrics.parsed" ||
    fail "the conflict in the metrics"
grep -Eqx "gauge solicd_router_lifetime_remaining_seconds\{router=fe80::b\} (59[0-9]|600)(\.0)?" "$WORK/metrics.parsed" ||
    fail "lifetime left of fe80::b: $(grep lifetime "$WORK/metrics.parsed")"
alive "$SOLICD_PID" || fail "solicd ended"
echo "PASS"

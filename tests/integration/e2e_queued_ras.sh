#!/usr/bin/env bash
# RAs that wait on solicd's socket together (solicd stopped while the router sends them). Without
# a session, every one is taken, in the order sent, and the client hears each change in that
# order. With a session recording LAB, every one still has a wakeup of its own: its socket event
# right before its reception.
source "$(dirname "$0")/tracing_lib.sh"
source "$(dirname "$0")/e2e_lib.sh"
for tool in lttng lttng-sessiond babeltrace2; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed (scripts/install-deps)"; exit 77; }
done

session=solicd-queued-$RUN
TRACE_SESSION=$session
trap 'stop_tracing; cleanup' EXIT
RAS=12

lab_up
router_address fe80::a
start_watch watch

# burst FIRST: RAS RAs from fe80::a queued while solicd is stopped, router lifetimes FIRST,
# FIRST + 1, ...; returns once solicd has taken them all.
burst()
{
    local i
    kill -STOP "$SOLICD_PID"
    for ((i = 0; i < RAS; i++)); do
        send_ra fe80::a lifetime=$(($1 + i))
    done
    kill -CONT "$SOLICD_PID"
    wait_counter rxRa "$RAS" 20
    [ "$COUNTER" = "$RAS" ] || fail "solicd counted $COUNTER RAs, $RAS were sent"
}

# Untraced.
start_solicd
wait_ready 30
burst 1001
expected=$(seq 1001 $((1000 + RAS)))
wait_lines "$WORK/watch.out" "$RAS" 10
heard=$(jq -r 'select(.kind == "router_updated") | .routerLifetime' "$WORK/watch.out")
[ "$heard" = "$expected" ] || fail "the client heard router lifetimes $(echo $heard), not $(echo $expected)"
kill -TERM "$SOLICD_PID"
wait_exit "$SOLICD_PID" 10

# Recorded by a session with every event enabled.
start_session_daemon
start_traced_solicd "$session" 'com_orvane_kt_solicd:*'
wait_ready 30
burst 2001
kill -TERM "$SOLICD_PID"
wait_exit "$SOLICD_PID" 10
lttng stop "$session" >/dev/null
lttng destroy "$session" >/dev/null
babeltrace2 "$WORK/trace" >"$WORK/babeltrace.log"
# E for a socket event, R for a reception, in record order.
sequence=$(sed -nE -e 's/.*message = "cbRaSocketEvent\(\): \[[^]]*\] Socket event 1, is received on socket [0-9]+".*/E/p' \
    -e 's/.*message = "receive\(\): \[[^]]*\] Received message on interface \['"$IH"'\], RA: fe80::a->ff02::1".*/R/p' \
    "$WORK/babeltrace.log" | tr -d '\n')
[ "$sequence" = "$(printf 'ER%.0s' $(seq 1 "$RAS"))" ] || fail "socket events and receptions: $sequence"
echo "PASS"

#!/usr/bin/env bash
# Ordinary mailbox traffic raises no EXCEPTION: a real solicd answers 100 `solicctl show`
# requests and sees its client connect and get killed 20 times, while an LTTng session records
# its events. Every request is answered and every connection gets the whole cache, and the
# session holds no EXCEPTION record (an empty receive would be one).
source "$(dirname "$0")/tracing_lib.sh"
source "$(dirname "$0")/e2e_lib.sh"
for tool in lttng lttng-sessiond babeltrace2; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed (scripts/install-deps)"; exit 77; }
done

session=solicd-quiet-$RUN
trap 'lttng destroy "$session" >/dev/null 2>&1 || true; stop_session_daemon; cleanup' EXIT

lab_up
router_address fe80::a
start_session_daemon
lttng create "$session" --output="$WORK/trace" >/dev/null
lttng enable-event --userspace 'com_orvane_kt_solicd:*' --session="$session" >/dev/null
lttng start "$session" >/dev/null

LTTNG_UST_REGISTER_TIMEOUT=20000 start_solicd
wait_ready 20
send_ra fe80::a lifetime=600 prefix=2001:db8:1::/64,3600,1800 rdnss=600,2001:db8::53
wait_show 'address: 2001:db8::53' 10

for i in $(seq 1 100); do
    "$SOLICCTL" show "$DAEMON_MBOX" >"$WORK/show.out" 2>"$WORK/show.err" || fail "show request $i failed"
    grep -q '^Counters:' "$WORK/show.out" || fail "show request $i: no counters in the answer"
done

for i in $(seq 1 20); do
    start_watch "watch$i"
    wait_json "$WORK/watch$i.out" '.kind == "dns_servers_updated"' 10 >/dev/null ||
        fail "client connection $i did not get the whole cache"
    kill -KILL "$WATCH_PID"
    wait "$WATCH_PID" 2>/dev/null || true
    # The daemon learns of the death before the next client appears under the same name.
    deadline=$((SECONDS + 10))
    while grep -Fqx "$CLIENT_MBOX" <<<"$("$SOLICCTL" ls 2>/dev/null)"; do
        [ $SECONDS -lt $deadline ] || fail "the killed client's mailbox is still listed"
        sleep 0.05
    done
done

lttng stop "$session" >/dev/null
babeltrace2 "$WORK/trace" >"$WORK/trace.txt"
pushes=$(grep -c 'Will propagate RA cache to the client' "$WORK/trace.txt" || true)
[ "$pushes" -ge 20 ] || fail "the session recorded $pushes whole-cache pushes, fewer than the 20 connections"
exceptions=$(grep -c 'com_orvane_kt_solicd:EXCEPTION:' "$WORK/trace.txt" || true)
[ "$exceptions" -eq 0 ] ||
    fail "$exceptions EXCEPTION records, e.g.: $(grep -m1 'com_orvane_kt_solicd:EXCEPTION:' "$WORK/trace.txt")"
[ ! -s "$WORK/solicd.err" ] || fail "solicd wrote to stderr"
echo "PASS"

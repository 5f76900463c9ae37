#!/usr/bin/env bash
# An LTTng session records one solicd run, and only that process: babeltrace2 shows the start-up
# sequence, the LAB lines of every RA, the client notifications, SIGHUP traced and ignored, and
# the clean termination on SIGTERM, with the exact texts.
source "$(dirname "$0")/tracing_lib.sh"
source "$(dirname "$0")/e2e_lib.sh"
for tool in lttng lttng-sessiond babeltrace2; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed (scripts/install-deps)"; exit 77; }
done

session=solicd-e2e-$RUN
TRACE_SESSION=$session
trap 'stop_tracing; cleanup' EXIT

lab_up
router_address fe80::a
start_watch watch

start_session_daemon

start_traced_solicd "$session" 'com_orvane_kt_solicd:*'

wait_ready 30
send_ra fe80::a lifetime=600 prefix=2001:db8:1::/64,3600,1800 rdnss=600,2001:db8::53
wait_json "$WORK/watch.out" '.kind == "dns_servers_updated"' 10 >/dev/null || fail "the first RA was not forwarded"
send_ra fe80::a lifetime=600 prefix=2001:db8:1::/64,3600,1800 prefix=2001:db8:2::/64,3600,1800 \
    rdnss=600,2001:db8::53
wait_json "$WORK/watch.out" '.kind == "network_updated" and .prefix == "2001:db8:2::"' 10 >/dev/null ||
    fail "the second RA was not forwarded"
kill -HUP "$SOLICD_PID"
# An answer after the signal: it did not end solicd.
"$SOLICCTL" show "$DAEMON_MBOX" >/dev/null || fail "SIGHUP ended solicd"
kill -TERM "$SOLICD_PID"
wait_exit "$SOLICD_PID" 10
[ "$EXIT_STATUS" = 0 ] || fail "SIGTERM: exit status $EXIT_STATUS"
lttng stop "$session" >/dev/null
lttng destroy "$session" >/dev/null

# One line per record: vpid, event, category, message (babeltrace2 escapes quotes).
babeltrace2 "$WORK/trace" >"$WORK/babeltrace.log"
sed -nE 's/^.* com_orvane_kt_solicd:([A-Z]+): \{ cpu_id = [0-9]+ \}, \{ vpid = ([0-9]+) \}, \{ location = "[^"]*", category = "([A-Z_0-9]+)", message = "(.*)" \}$/\2\t\1\t\3\t\4/p' \
    "$WORK/babeltrace.log" | sed "s/\\\\'/'/g" >"$WORK/records.out"
total=$(grep -c 'com_orvane_kt_solicd:' "$WORK/babeltrace.log" || true)
[ "$total" -gt 20 ] || fail "only $total records"
[ "$(line_count "$WORK/records.out")" -eq "$total" ] || fail "records that do not read as location, category, message"
[ "$(cut -f1 "$WORK/records.out" | sort -u)" = "$SOLICD_PID" ] || fail "records from another process"
cut -f2- "$WORK/records.out" >"$WORK/events.out"

tag=$DAEMON_MBOX
# re TEXT: TEXT as a literal in an extended regular expression.
re() { sed 's/[][\.*^$()+?{}|/]/\\&/g' <<<"$1"; }
# at EVENT CATEGORY REGEX: the first record after record number $after that matches; moves
# $after to it. (The pattern goes through the environment: awk would read escapes in -v values.)
after=0
at()
{
    local n
    n=$(PATTERN="^$1	$2	$3\$" awk -v from="$after" 'NR > from && $0 ~ ENVIRON["PATTERN"] { print NR; exit }' \
        "$WORK/events.out")
    [ -n "$n" ] || fail "no $1 $2 record after record $after matching: $3"
    after=$n
}
# count EVENT CATEGORY REGEX
count() { grep -cE "^$1	$2	$3\$" "$WORK/events.out" || true; }

# Start-up, in this order.
at INFO GENERAL "$(re "init(): [$tag] Solicd initialization started")"
at LAB ADDR_IPV6 "$(re "init(): [$tag] Socket manager will be initiated with netns  '$HOST', on interface $IH.")"
at INFO ADDR_IPV6 "$(re "init(): [$tag] Bind successful after ")[0-9]+ attempts\\."
at INFO GENERAL "$(re "postDstMboxEvent(): [$tag] Changing dstMbox '$CLIENT_MBOX' state: '{ no: 2, txt: DST_MBOX_STATE_NOT_SET}' -> '{ no: 4, txt: DST_MBOX_STATE_CONNECTING}'")"
at LAB GENERAL "$(re "addFdEvent(): [$tag] FD for EVENT_SRC_TYPE_LMX with ID ")[0-9]+ was added into event loop"
at LAB GENERAL "$(re "addFdEvent(): [$tag] FD for EVENT_SRC_TYPE_SOCKET with ID ")[0-9]+ was added into event loop"
at INFO GENERAL "$(re "init(): [$tag] Solicd initialization finished")"
startup_end=$after

# The client's mailbox was there: connected, then the (empty) cache pushed.
at INFO GENERAL "$(re "postDstMboxEvent(): [$tag] Changing dstMbox '$CLIENT_MBOX' state: '{ no: 4, txt: DST_MBOX_STATE_CONNECTING}' -> '{ no: 8, txt: DST_MBOX_STATE_CONNECTED}'")"
at INFO GENERAL "$(re "sendRaCacheToLmxClient(): [$tag] Will propagate RA cache to the client. Routers number: 0 Networks number: 0 DNS Servers number: 0.")"

# Each RA: the socket event, the reception, the cache, the notifications.
socket_event="$(re "cbRaSocketEvent(): [$tag] Socket event 1, is received on socket ")[0-9]+"
received=$(re "receive(): [$tag] Received message on interface [$IH], RA: fe80::a->ff02::1")
after=$startup_end
at LAB GENERAL "$socket_event"
at LAB ADDR_IPV6 "$received"
created="init(): [$tag] Created Router with id:router/fe80::a, data: {config: {address: fe80::a, reachableTime: 0, retransTimer: 0, routerLifetime: 600, flags: 0x0}, status: {id: 1, state: STATE_NEW,"
at INFO ADDR_IPV6 "$(re "$created").*"
at LAB GENERAL "$(re "notify(): [$tag] Send message to ")[0-9]+ $(re "(subscriber), msg:")"'.*'
at LAB GENERAL "$socket_event"
at LAB ADDR_IPV6 "$received"
[ "$(count LAB GENERAL "$socket_event")" = 2 ] || fail "not two socket events"
[ "$(count LAB ADDR_IPV6 "$received")" = 2 ] || fail "not two receptions"
[ "$(count LAB GENERAL "$(re "notify(): [$tag] Send message to ")"'.*')" -ge 5 ] || fail "fewer than 5 notifications"

# SIGHUP traced and ignored; SIGTERM ends it, removing both descriptor sources.
at INFO GENERAL "$(re "cbSignalEvent(): [$tag] Unix Signal Hangup (1), is received")"
at INFO GENERAL "$(re "handleSignalEvent(): [$tag] Unix Signal Hangup (1), received and ignored")"
at INFO GENERAL "$(re "cbSignalEvent(): [$tag] Unix Signal Terminated (15), is received")"
at INFO GENERAL "$(re "terminate(): [$tag] Terminating. result 0")"
at LAB GENERAL "$(re "terminate(): [$tag] FD for EVENT_SRC_TYPE_SOCKET with ID ")[0-9]+ was removed"
at LAB GENERAL "$(re "terminate(): [$tag] FD for EVENT_SRC_TYPE_LMX with ID ")[0-9]+ was removed"
[ "$after" -eq "$total" ] || fail "records after the termination"
[ "$(count ERROR '[A-Z_0-9]+' '.*')" = 0 ] || fail "ERROR records in a clean run"
echo "PASS"

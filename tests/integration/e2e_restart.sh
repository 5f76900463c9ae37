#!/usr/bin/env bash
# A network that expires while no client is connected cannot be forwarded: solicd asks for a
# restart (one line on stderr, exit status 70), its supervisor starts it again, and the new
# solicd works: it owns its mailbox again, learns RAs and serves a client. SIGTERM then ends it
# with status 0, which also ends the supervisor.
source "$(dirname "$0")/e2e_lib.sh"

lab_up
router_address fe80::a

# The supervisor: start solicd again whenever it ends with a status other than 0.
supervise()
{
    local child status
    trap 'kill "$child" 2>/dev/null; exit 0' TERM
    while :; do
        "$SOLICD" -n "$HOST" -i "$IH" -s "$DAEMON_MBOX" -d "$CLIENT_MBOX" >>"$WORK/solicd.out" 2>>"$WORK/solicd.err" &
        child=$!
        echo "$child" >"$WORK/solicd.pid"
        status=0
        wait "$child" || status=$?
        echo "exit $status" >>"$WORK/supervisor.log"
        [ "$status" -ne 0 ] || return 0
        sleep 0.5
    done
}
supervise &
supervisor=$!
PIDS+=("$supervisor")
wait_ready 20
first=$(cat "$WORK/solicd.pid")

# No client: the RA is only cached; the prefix is deprecated after 1 s, expires after 3 s.
send_ra fe80::a lifetime=600 prefix=2001:db8:1::/64,3,1
deadline=$((SECONDS + 15))
until grep -qx 'exit 70' "$WORK/supervisor.log" 2>/dev/null; do
    [ $SECONDS -lt $deadline ] || fail "solicd did not ask for a restart"
    sleep 0.1
done
grep -Eqx 'solicd: restart requested at [^ ]+\.cpp:[0-9]+: LmxMgr::notify' "$WORK/solicd.err" ||
    fail "no restart request naming LmxMgr::notify on stderr"
[ "$(wc -l <"$WORK/solicd.err")" -eq 1 ] || fail "more than the restart request on stderr"
[ "$(cat "$WORK/supervisor.log")" = "exit 70" ] || fail "unexpected exits: $(cat "$WORK/supervisor.log")"

# The supervisor's new solicd: its mailbox answers, its cache starts empty.
deadline=$((SECONDS + 10))
until [ "$(cat "$WORK/solicd.pid")" != "$first" ]; do
    [ $SECONDS -lt $deadline ] || fail "the supervisor did not start solicd again"
    sleep 0.1
done
second=$(cat "$WORK/solicd.pid")
wait_ready 20
"$SOLICCTL" show "$DAEMON_MBOX" >"$WORK/show.out" || fail "show-cache request to the new solicd"
grep -q '^Routers:$' "$WORK/show.out" && grep -q '^Networks:$' "$WORK/show.out" ||
    fail "the new solicd does not start with an empty cache"

start_watch watch
send_ra fe80::a lifetime=600 prefix=2001:db8:2::/64,3600,1800
wait_json "$WORK/watch.out" '.kind == "router_updated" and .address == "fe80::a" and .status.state == "STATE_NEW"' 10 \
    >/dev/null || fail "the new solicd did not forward the router"
wait_json "$WORK/watch.out" '.kind == "network_updated" and .prefix == "2001:db8:2::"' 10 >/dev/null ||
    fail "the new solicd did not forward the network"

kill -TERM "$second"
deadline=$((SECONDS + 10))
while alive "$supervisor"; do
    [ $SECONDS -lt $deadline ] || fail "the supervisor did not end after solicd's clean exit"
    sleep 0.1
done
[ "$(tail -n 1 "$WORK/supervisor.log")" = "exit 0" ] || fail "SIGTERM did not end solicd with status 0"
[ "$(wc -l <"$WORK/solicd.err")" -eq 1 ] || fail "the second solicd wrote to stderr"
echo "PASS"

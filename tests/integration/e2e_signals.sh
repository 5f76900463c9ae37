#!/usr/bin/env bash
# SIGHUP and SIGQUIT are ignored: solicd keeps learning RAs, forwarding them and answering.
# SIGTERM and SIGINT end it with status 0, quietly, and its client does not mind.
source "$(dirname "$0")/e2e_lib.sh"

lab_up
router_address fe80::a
start_watch watch
start_solicd
wait_ready 20
out=$WORK/watch.out

send_ra fe80::a lifetime=600 prefix=2001:db8:1::/64,3600,1800
wait_json "$out" '.kind == "network_updated" and .prefix == "2001:db8:1::"' 10 >/dev/null ||
    fail "the first RA was not forwarded"

n=2
for sig in HUP QUIT; do
    kill -"$sig" "$SOLICD_PID"
    # An answer after the signal: it did not end solicd.
    "$SOLICCTL" show "$DAEMON_MBOX" >/dev/null || fail "SIG$sig ended solicd"
    send_ra fe80::a lifetime=600 prefix=2001:db8:1::/64,3600,1800 "prefix=2001:db8:$n::/64,3600,1800"
    wait_json "$out" ".kind == \"network_updated\" and .prefix == \"2001:db8:$n::\"" 10 >/dev/null ||
        fail "no RA forwarded after SIG$sig"
    show_has "^{config: {prefix: 2001:db8:$n::," ||
        fail "show-cache after SIG$sig"
    n=$((n + 1))
done

kill -TERM "$SOLICD_PID"
wait_exit "$SOLICD_PID" 5
[ "$EXIT_STATUS" = 0 ] || fail "SIGTERM: exit status not 0"
[ ! -s "$WORK/solicd.err" ] || fail "solicd wrote to stderr"
alive "$WATCH_PID" || fail "the client ended with solicd"

# SIGINT, on a solicd that already has a cache and a connected client.
start_solicd
wait_ready 20
send_ra fe80::a lifetime=600 prefix=2001:db8:9::/64,3600,1800
wait_json "$out" '.kind == "network_updated" and .prefix == "2001:db8:9::"' 10 >/dev/null ||
    fail "the second solicd did not forward"
kill -INT "$SOLICD_PID"
wait_exit "$SOLICD_PID" 5
[ "$EXIT_STATUS" = 0 ] || fail "SIGINT: exit status not 0"
[ ! -s "$WORK/solicd.err" ] || fail "solicd wrote to stderr"
echo "PASS"

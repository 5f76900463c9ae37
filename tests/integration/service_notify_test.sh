#!/usr/bin/env bash
# The real daemon tells a service manager (a Unix datagram socket this test binds, named by
# NOTIFY_SOCKET) each stage of its start and life, in order and with exact texts: entering the
# namespace, waiting for a link-local address, READY=1 while it waits for its client, the
# cache's counts while a client is there (refreshed when an RA changes them) and the wait again
# when the client goes. Nothing is sent before the address appears that says it is ready.
source "$(dirname "$0")/e2e_lib.sh"

LISTENER=$BIN/notify_listener
[ -x "$LISTENER" ] || fail "$LISTENER is not built"

lab_up
# solicd's end of the link loses its link-local address: the daemon has to wait for one.
ip -n "$HOST" addr flush dev "$IH" scope link
[ -z "$(link_local "$HOST" "$IH")" ] || fail "$IH still has a link-local address"

"$LISTENER" "$WORK/notify" >"$WORK/notify.out" 2>"$WORK/notify.err" &
LISTENER_PID=$!
PIDS+=("$LISTENER_PID")
wait_socket "$WORK/notify" 5

# wait_notified LINE SECONDS: until the listener has received a notification line LINE.
wait_notified()
{
    local deadline=$((SECONDS + $2))
    until grep -Fqx -- "$1" "$WORK/notify.out"; do
        alive "$SOLICD_PID" || fail "solicd ended while waiting for '$1'"
        [ $SECONDS -lt $deadline ] || fail "no notification '$1' within $2 s"
        sleep 0.1
    done
}

NOTIFY_SOCKET=$WORK/notify start_solicd
wait_notified "STATUS=Waiting for a link-local address on $IH" 20
# It waits there, not ready, for as long as the address is missing.
sleep 1
! grep -q READY "$WORK/notify.out" || fail "solicd said it was ready without a link-local address"

ip -n "$HOST" addr add fe80::5ee:1/64 dev "$IH" nodad
wait_notified "STATUS=Waiting for the client mailbox $CLIENT_MBOX" 20
start_watch watch
wait_notified "STATUS=Running: 0 routers, 0 prefixes, 0 DNS servers" 20
send_ra "$LL_R" lifetime=1800 prefix=2001:db8:1::/64,3600,1800 rdnss=600,2001:db8::53,2001:db8::54
wait_notified "STATUS=Running: 1 router, 1 prefix, 2 DNS servers" 20
# The same RA again changes nothing the status counts.
send_ra "$LL_R" lifetime=1800 prefix=2001:db8:1::/64,3600,1800 rdnss=600,2001:db8::53,2001:db8::54
kill "$WATCH_PID"
wait_exit "$WATCH_PID" 10
wait_notified "STATUS=Waiting for the client mailbox $CLIENT_MBOX" 20
sleep 1.5

kill -TERM "$SOLICD_PID"
wait_exit "$SOLICD_PID" 10
[ "$EXIT_STATUS" -eq 0 ] || fail "SIGTERM ended solicd with $EXIT_STATUS"
[ ! -s "$WORK/solicd.err" ] || fail "solicd wrote to stderr: $(cat "$WORK/solicd.err")"

expected="STATUS=Entering network namespace $HOST
STATUS=Waiting for a link-local address on $IH
READY=1
STATUS=Waiting for the client mailbox $CLIENT_MBOX
STATUS=Running: 0 routers, 0 prefixes, 0 DNS servers
STATUS=Running: 1 router, 1 prefix, 2 DNS servers
STATUS=Waiting for the client mailbox $CLIENT_MBOX"
if [ "$(cat "$WORK/notify.out")" != "$expected" ]; then
    diff -u <(echo "$expected") "$WORK/notify.out" || true
    fail "the service manager was told something else"
fi
echo "PASS: READY=1 and $(grep -c '^STATUS=' "$WORK/notify.out") status lines reached the notification socket in order"

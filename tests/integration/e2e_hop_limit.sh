#!/usr/bin/env bash
# Neighbour Discovery from this link comes with hop limit 255 (RFC 4861 6.1.2): of two crafted RAs
# from the router's namespace, the one sent with hop limit 64 (as a router beyond the link would
# make it arrive) is rejected, counted and traced at INFO with its exact text, nothing else said
# of it; only the one sent with 255 becomes a router.
source "$(dirname "$0")/e2e_lib.sh"

lab_up
router_address fe80::a
router_address fe80::b
SOLICD_TRACE_STDERR=INFO,ERROR,EXCEPTION start_solicd
wait_ready 20

send_ra fe80::a iphop=64 lifetime=600 prefix=2001:db8:a::/64,3600,1800
send_ra fe80::b lifetime=600 prefix=2001:db8:b::/64,3600,1800
wait_show "address: fe80::b," 10
# One socket, taken in order: the first RA was handled before the second.
! show_has "address: fe80::a," || fail "the RA that came with hop limit 64 made a router"
[ "$(counter rxRa)" = 1 ] || fail "solicd took $(counter rxRa) RAs, not the one with hop limit 255"
[ "$(counter rxRejected)" = 1 ] || fail "solicd rejected $(counter rxRejected) datagrams, not the one with hop limit 64"
[ "$(counter raParsed)" = 1 ] && [ "$(counter raDropped)" = 0 ] || fail "the rejected RA was parsed"
! show_has "prefix: 2001:db8:a::," || fail "the RA that came with hop limit 64 gave a prefix"

# The mirror on stderr: "EVENT CATEGORY LOCATION MESSAGE".
rejected="INFO ADDR_IPV6 SocketMgr\\.cpp:[0-9]+ receive\\(\\): \\[$DAEMON_MBOX\\] Message was received with hop limit 64, expected 255"
[ "$(grep -Ecx "$rejected" "$WORK/solicd.err")" = 1 ] || fail "the rejection is not traced once at INFO"
[ "$(grep -c 'hop limit' "$WORK/solicd.err")" = 1 ] || fail "more said of hop limits than the one rejection"
! grep -Eq '^(ERROR|EXCEPTION) ' "$WORK/solicd.err" || fail "an error beside the rejection: $(grep -E '^(ERROR|EXCEPTION) ' "$WORK/solicd.err")"

alive "$SOLICD_PID" || fail "solicd ended"
echo "PASS"

#!/usr/bin/env bash
# What reaches receive from the wire: only Router Advertisements, a datagram over 1024 bytes is
# rejected as truncated, the verbose line, and a socket tied to no interface hears every one.
source "$(dirname "$0")/socket_lib.sh"

A=scA$RUN B=scB$RUN
IA=ca$RUN IB=cb$RUN
linked_pair "$A" "$IA" "$B" "$IB"
wait_dad "$A" "$IA"
wait_dad "$B" "$IB"
llA=$(link_local "$A" "$IA")
llB=$(link_local "$B" "$IB")
send() { ip netns exec "$B" "$SENDER" "$IB" "$@" || fail "sending $*"; }
# ICMPv6 messages of one type that reached the ICMPv6 layer of namespace A (raw sockets included).
received_in_a() { ip netns exec "$A" awk -v k="Icmp6InType$1" '$1 == k { n = $2 } END { print n + 0 }' /proc/net/snmp6; }

start_driver rx --ns "$A" --if "$IA" --seconds 30 --verbose
wait_line "$WORK/rx.out" "INIT	0" 10

# ---- Router Solicitation, Neighbour Solicitation and echo request, unicast and multicast: they
# reach the namespace but none of them reaches receive; the Router Advertisement sent after them does.
rs=$(received_in_a 133) ns=$(received_in_a 135) echo=$(received_in_a 128)
send "$llA" 133 16
send "$llA" 135 24
send ff02::1 135 24
send "$llA" 128 16
send ff02::1 128 16
# (The kernel of B adds Neighbour Solicitations of its own to resolve llA.)
deadline=$((SECONDS + 5))
until [ "$(received_in_a 133)" -ge $((rs + 1)) ] && [ "$(received_in_a 135)" -ge $((ns + 2)) ] &&
    [ "$(received_in_a 128)" -ge $((echo + 2)) ]; do
    [ $SECONDS -lt $deadline ] || fail "the crafted messages did not reach namespace $A"
    sleep 0.1
done
send ff02::1 134 16
wait_line "$WORK/rx.out" "RECV	0	1	16	$llB	1	0" 10
[ "$(grep -c '^RECV' "$WORK/rx.out")" = 1 ] || fail "something other than the RA reached receive"
has_line "$WORK/rx.out" "Received an IPv6 Router Advertisement from $llB on interface $IA sent to ff02::1" ||
    fail "no verbose line for the accepted RA"
expect_trace "$WORK/rx.out" LAB ADDR_IPV6 "receive(): [] Received message on interface [$IA], RA: $llB->ff02::1"

# ---- Unicast RA: the destination is the interface's own address.
send "$llA" 134 64
wait_line "$WORK/rx.out" "RECV	0	1	64	$llB	2	0" 10
has_line "$WORK/rx.out" "Received an IPv6 Router Advertisement from $llB on interface $IA sent to $llA" ||
    fail "no verbose line for the unicast RA"

# ---- Longer than the 1024-byte buffer: truncated, counted as rejected, not accepted.
send ff02::1 134 1100
wait_line "$WORK/rx.out" "RECV	0	4	1024	::	2	1" 10
expect_trace "$WORK/rx.out" ERROR ADDR_IPV6 "receive(): [] truncated message, received 1024"
send ff02::1 134 1024
wait_line "$WORK/rx.out" "RECV	0	1	1024	$llB	3	1" 10

# ---- A socket tied to no interface accepts RAs from every interface.
C=scC$RUN
I1=c1$RUN P1=d1$RUN I2=c2$RUN P2=d2$RUN
new_ns "$C"
veth "$C" "$I1" "$B" "$P1"
veth "$C" "$I2" "$B" "$P2"
for i in "$I1" "$I2"; do ip -n "$C" link set "$i" up; done
for p in "$P1" "$P2"; do ip -n "$B" link set "$p" up; done
wait_dad "$B" "$P1"
wait_dad "$B" "$P2"
ll1=$(link_local "$B" "$P1")
ll2=$(link_local "$B" "$P2")
ip netns exec "$C" timeout -k 2 30 "$DRIVER" --any-interface --seconds 20 --verbose >"$WORK/any.out" 2>&1 &
PIDS+=($!)
wait_line "$WORK/any.out" "INIT	0" 10
ip netns exec "$B" "$SENDER" "$P1" ff02::1 134 16 || fail "sending on $P1"
wait_line "$WORK/any.out" "RECV	0	1	16	$ll1	1	0" 10
ip netns exec "$B" "$SENDER" "$P2" ff02::1 134 16 || fail "sending on $P2"
wait_line "$WORK/any.out" "RECV	0	1	16	$ll2	2	0" 10
has_line "$WORK/any.out" "Received an IPv6 Router Advertisement from $ll1 on interface $I1 sent to ff02::1" ||
    fail "RA on $I1 not accepted"
has_line "$WORK/any.out" "Received an IPv6 Router Advertisement from $ll2 on interface $I2 sent to ff02::1" ||
    fail "RA on $I2 not accepted"

echo "PASS"

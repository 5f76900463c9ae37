#!/usr/bin/env bash
# The arrival interface is judged by its name at the time: renamed, the interface's RAs are
# rejected as received on the wrong interface; given its name back, they are accepted again.
source "$(dirname "$0")/socket_lib.sh"

A=smA$RUN B=smB$RUN
IA=ma$RUN IB=mb$RUN RENAMED=mr$RUN
linked_pair "$A" "$IA" "$B" "$IB"
wait_dad "$A" "$IA"
wait_dad "$B" "$IB"
llB=$(link_local "$B" "$IB")
send() { ip netns exec "$B" "$SENDER" "$IB" ff02::1 134 "$1" || fail "sending an RA of $1 bytes"; }
# rename FROM TO: the link must be down while it changes its name.
rename()
{
    ip -n "$A" link set "$1" down
    ip -n "$A" link set "$1" name "$2"
    ip -n "$A" link set "$2" up
    wait_dad "$A" "$2"
}

start_driver rx --ns "$A" --if "$IA" --seconds 40
wait_line "$WORK/rx.out" "INIT	0" 10

# Several RAs before any rename: the name asked once stays right.
send 16
send 24
send 32
wait_line "$WORK/rx.out" "RECV	0	1	32	$llB	3	0" 10

rename "$IA" "$RENAMED"
send 40
wait_line "$WORK/rx.out" "RECV	0	5	40	::	3	1" 10
expect_trace "$WORK/rx.out" ERROR ADDR_IPV6 \
    "receive(): [] Message was received on wrong interface expected:$IA, actual: $RENAMED"
send 48
wait_line "$WORK/rx.out" "RECV	0	5	48	::	3	2" 10

rename "$RENAMED" "$IA"
send 56
wait_line "$WORK/rx.out" "RECV	0	1	56	$llB	4	2" 10
echo "PASS"

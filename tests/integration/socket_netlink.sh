#!/usr/bin/env bash
# An interface without a usable link-local address: init waits on route netlink, ignores what
# does not qualify, and goes on once a permanent link-local address is announced.
source "$(dirname "$0")/socket_lib.sh"

A=snA$RUN B=snB$RUN
IA=na$RUN IB=nb$RUN
new_ns "$A"
new_ns "$B"
veth "$A" "$IA" "$B" "$IB"
ip -n "$A" link set "$IA" addrgenmode none
# In fe80::/10 but not written "fe80:...": getifaddrs does not take it.
ip -n "$A" addr add fe90::1/64 dev "$IA" nodad
ip -n "$A" link set "$IA" up
ip -n "$B" link set "$IB" up
ifindex=$(ip -n "$A" -o link show dev "$IA" 2>/dev/null | cut -d: -f1)

fn="initLocalIpv6AddrFromNetlink(): []"
start_driver nl --ns "$A" --if "$IA" --seconds 2
wait_line "$WORK/nl.out" "$(trace_line INFO ADDR_IPV6 "$fn Did not find linklocal address on the interface $IA. Use netlink to wait kernel to give the address")" 10

# The wait listens from its bind on: add nothing before its socket is in the IPv6 address group.
netlink_socket() { ip netns exec "$A" awk -v pid="$LAST_DRIVER" '$2 == 0 && $3 == pid && $4 == "00000100"' /proc/net/netlink; }
LAST_DRIVER=$(pgrep -P "$LAST_PID" socket_driver)
deadline=$((SECONDS + 10))
until [ -n "$(netlink_socket)" ]; do
    [ $SECONDS -lt $deadline ] || fail "no route-netlink socket in group 0x100"
    sleep 0.1
done

# A link-local address with a lifetime is not permanent: ignored, the wait goes on.
ip -n "$A" addr add fe80::aa/64 dev "$IA" valid_lft 300 preferred_lft 300 nodad
wait_line "$WORK/nl.out" "$(trace_line LAB ADDR_IPV6 "$fn Message igonred for the address is not PERMANENT")" 10
# A permanent global address: passed over without a message.
ip -n "$A" addr add 2001:db8::5/64 dev "$IA" nodad
# An address on another interface of the namespace: ignored by name.
ip -n "$A" addr add fe80::cc/64 dev lo nodad
wait_line "$WORK/nl.out" "$(trace_line LAB ADDR_IPV6 "$fn Message ignored for uninterested ifname lo")" 10
grep -q 'Received link-local' "$WORK/nl.out" && fail "the wait ended before a permanent link-local address"

ip -n "$A" addr add fe80::beef/64 dev "$IA" nodad
wait "$LAST_PID" || fail "driver"

# Every announcement printed its reception line and its new-address line; the global one nothing else.
[ "$(count_lines "$WORK/nl.out" "$(trace_line LAB ADDR_IPV6 "$fn Get a message with new address")")" = 4 ] ||
    fail "not four new-address messages"
[ "$(grep -c "Get a netlink message to process with len" "$WORK/nl.out")" = 4 ] || fail "not four datagrams"
[ "$(grep -P '^T\t(INFO|ERROR)\t' "$WORK/nl.out" | grep -cF "$fn")" = 2 ] || fail "unexpected INFO or ERROR lines"
expect_trace "$WORK/nl.out" INFO ADDR_IPV6 "$fn Received link-local address from kernel over netlink"
grep -qF "lladdr:{sin6_family.text: AF_INET6, sain6_family_num:10, sin6_port: 0, sin6_flowinfo: 0, sin6_addr: fe80::beef, sin6_scope_id: $ifindex}" \
    "$WORK/nl.out" || fail "lladdr is not fe80::beef on index $ifindex"
expect_trace "$WORK/nl.out" INFO ADDR_IPV6 "init(): [] Bind successful after 1 attempts."
has_line "$WORK/nl.out" "INIT	0" || fail "init result"

echo "PASS"

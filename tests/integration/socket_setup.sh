#!/usr/bin/env bash
# Socket set-up in a namespace: entering the namespace (or not), the interface configuration,
# link-local address from the interface's current addresses, refusals, the first RS delay.
source "$(dirname "$0")/socket_lib.sh"
command -v strace >/dev/null || { echo "skipped: strace is not installed (scripts/install-deps)"; exit 77; }

A=ssA$RUN B=ssB$RUN
IA=sa$RUN IB=sb$RUN
linked_pair "$A" "$IA" "$B" "$IB"
wait_dad "$A" "$IA"

# ---- A namespace without a file under /var/run/netns/ fails in open.
missing=nons$RUN
"$DRIVER" --ns "$missing" --if "$IA" --seconds 1 >"$WORK/missing.out" 2>&1 && fail "init succeeded without namespace"
expect_trace "$WORK/missing.out" ERROR ADDR_IPV6 \
    "init(): [] Unable to set namespace '$missing', function 'open' failed, error: No such file or directory (2)"
has_line "$WORK/missing.out" "INIT	1" || fail "init result for a missing namespace"

# ---- A file there that is no network namespace fails in setns.
mkdir -p /var/run/netns
notns=notns$RUN
EXTRA_FILES+=("/var/run/netns/$notns")
: >"/var/run/netns/$notns"
"$DRIVER" --ns "$notns" --if "$IA" --seconds 1 >"$WORK/notns.out" 2>&1 && fail "init succeeded in a plain file"
expect_trace "$WORK/notns.out" ERROR ADDR_IPV6 \
    "init(): [] Unable to set namespace '$notns', function 'setns' failed, error: Invalid argument (22)"

# ---- Empty namespace: no open, no setns; the interface of the namespace we run in is found.
raw=$WORK/strace-emptyns.txt
ip netns exec "$A" strace -f -qq -X raw -e trace=open,openat,setns,socket,setsockopt,bind -o "$raw" \
    "$DRIVER" --ns "" --if "$IA" --seconds 1 >"$WORK/emptyns.out" 2>&1 || fail "init with an empty namespace"
expect_trace "$WORK/emptyns.out" LAB ADDR_IPV6 \
    "init(): [] Socket manager will be initiated with netns  '', on interface $IA."
has_line "$WORK/emptyns.out" "INIT	0" || fail "init result with an empty namespace"
if grep -E 'setns\(|/var/run/netns' "$raw"; then
    fail "an empty namespace still entered a namespace"
fi

# ---- The raw socket and its options, as numbers: AF_INET6 raw ICMPv6, tied to the device, the
# type filter passing only 134, packet information on, multicast loop off, then the bind to the
# 28-byte link-local address.
line_of() { grep -nF -- "$1" "$raw" | head -n1 | cut -d: -f1; }
filter=$(printf '\\377%.0s' $(seq 16))'\277\377\377\377'$(printf '\\377%.0s' $(seq 12))
previous=0
for call in 'socket(0xa, 0x3, 0x3a) ' "0x1, 0x19, \"$IA\", ${#IA}) = 0" "0x3a, 1, \"$filter\", 32) = 0" \
    '0x29, 0x31, [1], 4) = 0' '0x29, 0x13, [0], 4) = 0' '{sa_family=0xa, '; do
    at=$(line_of "$call")
    [ -n "$at" ] || fail "no system call with: $call"
    [ "$at" -gt "$previous" ] || fail "out of order: $call"
    previous=$at
done
grep -qE '^([0-9]+ +)?bind\([0-9]+, \{sa_family=0xa, .*\}, 28\) = 0$' "$raw" || fail "bind to a 28-byte IPv6 address"
# The interface has its link-local address already: no socket joins the address notifications.
grep -qE 'nl_groups=(0x)?0*100[,}]' "$raw" && fail "a netlink socket was bound to the IPv6 address group"

# ---- In the namespace, on the interface: the configuration line, address from getifaddrs, no netlink.
ifindex=$(ip -n "$A" -o link show dev "$IA" 2>/dev/null | cut -d: -f1)
lladdr=$(ip -n "$A" -6 -o addr show dev "$IA" scope link | awk '{print $4}' | cut -d/ -f1 | head -n1)
hw=""
for byte in $(mac "$A" "$IA" | tr ':' ' '); do
    # Bytes of 0x80 and above print as signed values.
    [ $((16#$byte)) -ge 128 ] && byte=ffffff$byte
    hw=${hw:+$hw:}$byte
done
strace -f -qq -e trace=openat,setns -o "$WORK/strace-main.txt" \
    "$DRIVER" --ns "$A" --if "$IA" --seconds 2 >"$WORK/main.out" 2>&1 || fail "init in namespace $A"
nsfd=$(grep -oP "^([0-9]+ +)?openat\(AT_FDCWD, \"/var/run/netns/$A\", O_RDONLY\) += \K[0-9]+$" \
    "$WORK/strace-main.txt") || fail "the namespace file was not opened read-only"
grep -qE "^([0-9]+ +)?setns\($nsfd, CLONE_NEWNET\) += 0$" "$WORK/strace-main.txt" ||
    fail "no setns(CLONE_NEWNET) on the namespace file"
expect_trace "$WORK/main.out" LAB ADDR_IPV6 \
    "init(): [] Fetched interface configuration for if $IA configuration { name: $IA, ifindex:$ifindex, hwaddr:{sa_family_text: AF_LOCAL|UNIX, sa_family_num:1, sa_data: $hw}, lladdr:{sin6_family.text: AF_INET6, sain6_family_num:10, sin6_port: 0, sin6_flowinfo: 0, sin6_addr: $lladdr, sin6_scope_id: $ifindex}, rsaddr:{sin6_family.text: AF_INET6, sain6_family_num:10, sin6_port: 0, sin6_flowinfo: 0, sin6_addr: ff02::2, sin6_scope_id: 0}"
expect_trace "$WORK/main.out" INFO ADDR_IPV6 "init(): [] Bind successful after 1 attempts."
grep -q 'Did not find linklocal' "$WORK/main.out" && fail "netlink used although the interface has a link-local address"
delay=$(grep -oP '^T\tLAB\tGENERAL\tadd\(\): \[\] Timer RS timeout is added, timeout \K[0-9]+(?= msec)' "$WORK/main.out" |
    head -n1)
[ -n "$delay" ] && [ "$delay" -le 1000 ] || fail "first RS delay '$delay' is not 0 to 1000 ms"

# ---- Without the random source the first RS goes out after 500 ms.
"$DRIVER" --ns "$A" --if "$IA" --seconds 1 --random-source "$WORK/no-such-file" >"$WORK/norandom.out" 2>&1 ||
    fail "init without random source"
grep -qP '^T\tLAB\tGENERAL\tadd\(\): \[\] Timer RS timeout is added, timeout 500 msec, handler: [0-9]+$' \
    "$WORK/norandom.out" || fail "first RS delay without random source is not 500 ms"

# ---- Two link-local addresses: the one getifaddrs lists first wins (the kernel lists the newer first).
I2=s2$RUN P2=p2$RUN
veth "$A" "$I2" "$B" "$P2"
ip -n "$A" link set "$I2" addrgenmode none
ip -n "$A" addr add fe80::1/64 dev "$I2" nodad
ip -n "$A" addr add fe80::2/64 dev "$I2" nodad
ip -n "$A" link set "$I2" up
first=$(ip -n "$A" -6 -o addr show dev "$I2" scope link | awk '{print $4}' | cut -d/ -f1 | head -n1)
"$DRIVER" --ns "$A" --if "$I2" --seconds 1 >"$WORK/twoll.out" 2>&1 || fail "init with two link-local addresses"
grep -qF "lladdr:{sin6_family.text: AF_INET6, sain6_family_num:10, sin6_port: 0, sin6_flowinfo: 0, sin6_addr: $first," \
    "$WORK/twoll.out" || fail "not the first listed link-local address ($first)"

# ---- An interface that is down is refused after its address was found.
I3=s3$RUN P3=p3$RUN
veth "$A" "$I3" "$B" "$P3"
ip -n "$A" addr add fe80::3/64 dev "$I3" nodad
"$DRIVER" --ns "$A" --if "$I3" --seconds 1 >"$WORK/down.out" 2>&1 && fail "init succeeded on a down interface"
expect_trace "$WORK/down.out" ERROR ADDR_IPV6 "init(): [] Interface is not UP. Terminating."
grep -q 'isInterfaceUp' "$WORK/down.out" && fail "the flags of a down interface should read fine"

# ---- An empty interface name skips the device and its addresses but not the flags check.
ip netns exec "$A" strace -f -qq -e trace=setsockopt,ioctl -o "$WORK/strace-noif.txt" \
    "$DRIVER" --ns "" --if "" --seconds 1 >"$WORK/noif.out" 2>&1 && fail "init succeeded without interface"
expect_trace "$WORK/noif.out" ERROR ADDR_IPV6 "isInterfaceUp(): [] ioctl error on , errno=No such device (19)"
expect_trace "$WORK/noif.out" ERROR ADDR_IPV6 "init(): [] Interface is not UP. Terminating."
grep -qE 'SO_BINDTODEVICE|SIOCGIFINDEX|SIOCGIFHWADDR' "$WORK/strace-noif.txt" && fail "device set-up with an empty name"
grep -q 'Fetched interface configuration' "$WORK/noif.out" && fail "configuration line with an empty name"
grep -q 'SIOCGIFFLAGS' "$WORK/strace-noif.txt" || fail "no flags request with an empty name"

# ---- A name of 16 characters or more is refused before any device request: the kernel would
# cut it to the 15 characters of another interface's name.
long=L$RUN
while [ ${#long} -lt 15 ]; do long=${long}x; done
ip link add "$long" netns "$A" type veth peer name lp$RUN netns "$B"
ip -n "$A" link set "$long" up
ip netns exec "$A" strace -f -qq -s 64 -e trace=setns,setsockopt,ioctl -o "$WORK/strace-long.txt" \
    timeout -k 1 10 "$DRIVER" --ns "$A" --if "${long}yz" --seconds 1 >"$WORK/long.out" 2>&1 &&
    fail "init succeeded with a name of 17 characters"
expect_trace "$WORK/long.out" ERROR ADDR_IPV6 "init(): [] Interface name '${long}yz' is longer than 15 characters"
grep -q '^INIT	1$' "$WORK/long.out" || fail "init did not fail with a name of 17 characters"
grep -qE 'setns|SO_BINDTODEVICE|SIOCGIF' "$WORK/strace-long.txt" &&
    fail "namespace or device requests with a name of 17 characters: $(cat "$WORK/strace-long.txt")"

echo "PASS"

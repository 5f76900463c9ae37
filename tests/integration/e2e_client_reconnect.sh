#!/usr/bin/env bash
# The client comes after solicd and receives the whole cache when its mailbox appears, and then
# only the next change; killed with SIGKILL, it is noticed; what changes while it is away is not
# sent to anyone, and when it comes back it receives the whole cache again, the change included.
source "$(dirname "$0")/e2e_lib.sh"

lab_up
router_address fe80::a
start_solicd
wait_ready 20

# expect_whole_cache FILE LIFETIME PREFIXES...: the router (with router lifetime LIFETIME), one
# network per prefix (by id), the DNS list.
expect_whole_cache()
{
    local file=$1 lifetime=$2
    shift 2
    local count=$(($# + 2))
    wait_lines "$file" "$count" 10
    expect_json "$file" 1 ".kind == \"router_updated\" and .address == \"fe80::a\" and .routerLifetime == $lifetime and
        .reachableTime == 20000 and .retransTimer == 500 and .flags == 4" "the router"
    local i=2 p
    for p in "$@"; do
        expect_json "$file" $i ".kind == \"network_updated\" and .prefix == \"$p\" and .prefixLength == 64" \
            "network $p"
        i=$((i + 1))
    done
    expect_json "$file" $i '.kind == "dns_servers_updated" and
        [.servers[] | .address] == ["2001:db8::53", "2001:db8::54"]' "the DNS list"
}

# ra LIFETIME PREFIX...: the router's RA with router lifetime LIFETIME, the two DNS servers and
# these prefixes (P/LEN,VALID,PREF[,FLAGS]).
ra()
{
    local lifetime=$1 prefixes=() p
    shift
    for p in "$@"; do
        prefixes+=("prefix=$p")
    done
    send_ra fe80::a "lifetime=$lifetime" reachable=20000 retrans=500 flags=O "${prefixes[@]}" \
        rdnss=600,2001:db8::53,2001:db8::54
}

# next_change FILE COUNT LIFETIME PREFIX...: FILE holds the whole cache in COUNT lines; an RA
# that changes the router's lifetime to LIFETIME (the router comes first of what an RA changes)
# is the next thing the client hears: nothing came after the whole cache before it.
next_change()
{
    local file=$1 count=$2 lifetime=$3 n
    shift 3
    ra "$lifetime" "$@"
    n=$(wait_json "$file" ".kind == \"router_updated\" and .routerLifetime == $lifetime" 10) ||
        fail "the router's new lifetime did not reach the client"
    [ "$n" -eq $((count + 1)) ] || fail "more than the whole cache in $file: $(sed -n "$((count + 1))p" "$file")"
}

# The cache before any client: one router, two networks, two DNS servers.
ra 600 2001:db8:1::/64,3600,1800 2001:db8:2::/64,7200,3600,L
wait_show '^DNS Servers:{config: {index: 0, address: 2001:db8::53' 10

start_watch first
expect_whole_cache "$WORK/first.out" 600 2001:db8:1:: 2001:db8:2::
expect_json "$WORK/first.out" 2 '.validLifetime == 3600 and .preferredLifetime == 1800 and .flags == 48' \
    "the first prefix's lifetimes and flags"
expect_json "$WORK/first.out" 3 '.validLifetime == 7200 and .preferredLifetime == 3600 and .flags == 16' \
    "the second prefix's lifetimes and flags"
next_change "$WORK/first.out" 4 601 2001:db8:1::/64,3600,1800 2001:db8:2::/64,7200,3600,L

# Gone without a word: solicd must learn it from the mailbox service.
kill -KILL "$WATCH_PID"
wait "$WATCH_PID" 2>/dev/null || true

# A change while no client is connected: only cached.
ra 601 2001:db8:1::/64,3600,1800 2001:db8:2::/64,7200,3600,L 2001:db8:3::/64,900,300
wait_show 'prefix: 2001:db8:3::, prefixLength: 64, validLifetime: 900' 10
alive "$SOLICD_PID" || fail "solicd ended while the client was away"

start_watch second
expect_whole_cache "$WORK/second.out" 601 2001:db8:1:: 2001:db8:2:: 2001:db8:3::
expect_json "$WORK/second.out" 4 '.validLifetime == 900 and .preferredLifetime == 300 and .status.state == "STATE_NEW"' \
    "the prefix learnt while the client was away"
next_change "$WORK/second.out" 5 602 2001:db8:1::/64,3600,1800 2001:db8:2::/64,7200,3600,L 2001:db8:3::/64,900,300

alive "$SOLICD_PID" || fail "solicd ended"
[ ! -s "$WORK/solicd.err" ] || fail "solicd wrote to stderr"
echo "PASS"

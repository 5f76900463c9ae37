#!/usr/bin/env bash
# Lifetimes run out on real timers, with a client connected throughout:
# - of two routers the short-lived one expires: the client hears the expired router, then the
#   active router with the lowest id;
# - a prefix passes its preferred lifetime (deprecated: nothing is sent), then its valid
#   lifetime: the expired network is sent, then the next active network of its router;
# - a DNS server's lifetime runs out, and later an RA gives another one lifetime 0: each time the
#   whole new active set is sent.
source "$(dirname "$0")/e2e_lib.sh"

lab_up
router_address fe80::a
router_address fe80::b
start_watch watch
start_solicd
wait_ready 20
out=$WORK/watch.out

# Router B (id 1) stays; its prefix 2001:db8:1::/64 is preferred for 3 s and valid for 6 s,
# 2001:db8:2::/64 stays; DNS servers 53 and 55 stay, 54 lives 4 s. Router A (id 2) lives 3 s.
# Every short lifetime starts on arrival, and however long the second RA takes to follow the
# first, B is there when A expires.
send_ra fe80::b lifetime=600 prefix=2001:db8:1::/64,6,3 prefix=2001:db8:2::/64,3600,1800 \
    rdnss=600,2001:db8::53,2001:db8::55 rdnss=4,2001:db8::54
send_ra fe80::a lifetime=3
wait_lines "$out" 5 10
expect_json "$out" 1 '.kind == "router_updated" and .address == "fe80::b" and .status.id == 1 and
    .status.state == "STATE_NEW"' "router B new"
expect_json "$out" 2 '.kind == "network_updated" and .prefix == "2001:db8:1::" and .validLifetime == 6 and
    .preferredLifetime == 3 and .status.state == "STATE_NEW"' "short prefix new"
expect_json "$out" 3 '.kind == "network_updated" and .prefix == "2001:db8:2::"' "long prefix new"
expect_json "$out" 4 '.kind == "dns_servers_updated" and
    [.servers[] | .address] == ["2001:db8::53", "2001:db8::55", "2001:db8::54"]' "three DNS servers"
n=$(wait_json "$out" '.kind == "router_updated" and .address == "fe80::a" and .status.state == "STATE_NEW"' 10) ||
    fail "router A did not arrive"
expect_json "$out" "$n" '.status.id == 2' "router A new, second"

# Router A expires: A itself, then the lowest-id active router, B.
n=$(wait_json "$out" '.kind == "router_updated" and .address == "fe80::a" and .status.state == "STATE_EXPIRED"' 10) ||
    fail "router A did not expire"
expect_json "$out" "$n" '.status.expiredCount == 1 and .status.stateChangeCount >= 1' "router A counted as expired"
expect_json "$out" $((n + 1)) '.kind == "router_updated" and .address == "fe80::b" and .status.id == 1' \
    "router B right after the expired router A"

# DNS server 54 expires: the remaining active set.
wait_json "$out" '.kind == "dns_servers_updated" and [.servers[] | .address] == ["2001:db8::53", "2001:db8::55"]' 10 \
    >/dev/null || fail "no DNS list without the expired server"

# The short prefix expires (the deprecation before it was not sent): the expired network, then
# the router's next active network.
n=$(wait_json "$out" '.kind == "network_updated" and .prefix == "2001:db8:1::" and .status.state == "STATE_EXPIRED"' 10) ||
    fail "the short prefix did not expire"
expect_json "$out" "$n" '.status.deprecatedCount == 1 and .status.expiredCount == 1 and .status.stateChangeCount == 2' \
    "deprecated, then expired"
expect_json "$out" $((n + 1)) '.kind == "network_updated" and .prefix == "2001:db8:2::" and .status.state == "STATE_NEW"' \
    "the next active network right after the expired one"
no_line "$out" '.status.state == "STATE_DEPRECATED"' "a deprecation is not forwarded"
show_has 'prefix: 2001:db8:1::, .*state: STATE_EXPIRED' ||
    fail "the cache does not show the short prefix expired"

# DNS server 55 is withdrawn by lifetime 0: the new active set, 53 alone.
before=$(line_count "$out")
send_ra fe80::b lifetime=600 prefix=2001:db8:2::/64,3600,1800 rdnss=0,2001:db8::55
n=$(wait_json "$out" '.kind == "dns_servers_updated" and [.servers[] | .address] == ["2001:db8::53"]' 10) ||
    fail "no DNS list after lifetime 0"
[ "$n" -gt "$before" ] || fail "DNS list came before the RA with lifetime 0"
show_has 'address: 2001:db8::55, lifetime: 0}, status: {id: [0-9]*, state: STATE_INVALIDATED' ||
    fail "the cache does not show DNS server 55 invalidated"

alive "$SOLICD_PID" || fail "solicd ended"
[ ! -s "$WORK/solicd.err" ] || fail "solicd wrote to stderr"
echo "PASS"

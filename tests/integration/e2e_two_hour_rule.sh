#!/usr/bin/env bash
# The two-hour rule seen from the client: a prefix valid for a day, then an RA proposing 600 s
# cuts it to two hours (7200 s, counted as a reset); a further short proposal with two hours or
# less remaining is ignored (counted); a proposal above two hours is taken as it is.
source "$(dirname "$0")/e2e_lib.sh"

lab_up
router_address fe80::a
start_watch watch
start_solicd
wait_ready 20
out=$WORK/watch.out
ra() { send_ra fe80::a lifetime=1800 "prefix=2001:db8:1::/64,$1,$2"; }

ra 86400 14400
n=$(wait_json "$out" '.kind == "network_updated" and .validLifetime == 86400 and .status.state == "STATE_NEW"' 10) ||
    fail "the prefix did not arrive"

ra 600 0
n=$(wait_json "$out" '.kind == "network_updated" and .validLifetime == 7200' 10) ||
    fail "no update with the valid lifetime cut to two hours"
expect_json "$out" "$n" '.prefix == "2001:db8:1::" and .preferredLifetime == 0 and
    .status.lifetimeResetCount == 1 and .status.lifetimeIgnoredCount == 0 and
    .status.state == "STATE_DEPRECATED" and .status.expiryTime == .status.timeoutStartTime + 7200' \
    "valid 7200, one reset, deprecated by preferred 0, timer for two hours"

before=$(line_count "$out")
ra 300 0
wait_show '^Networks:.*lifetimeIgnoredCount: 1}' 10
show_has '^Networks:{config: {prefix: 2001:db8:1::, prefixLength: 64, validLifetime: 7200, preferredLifetime: 0,' ||
    fail "the ignored proposal changed the lifetime"

ra 10000 5000
n=$(wait_json "$out" '.kind == "network_updated" and .validLifetime == 10000' 10) ||
    fail "a proposal above two hours was not taken"
expect_json "$out" "$n" '.preferredLifetime == 5000 and .status.state == "STATE_UPDATED" and
    .status.lifetimeResetCount == 1 and .status.lifetimeIgnoredCount == 1' "taken, counters kept"
# The client hears in order: had the ignored proposal been forwarded, it would come before.
[ "$n" -eq $((before + 1)) ] || fail "an ignored proposal was forwarded: $(sed -n "$((before + 1))p" "$out")"

alive "$SOLICD_PID" || fail "solicd ended"
echo "PASS"

#!/usr/bin/env bash
# radvd advertises a prefix and two DNS servers: the client receives the router, the network and
# the DNS list with the advertised values; the show-cache answer has every section and both
# counter sets; the routers answer lists the router.
source "$(dirname "$0")/e2e_lib.sh"
command -v radvd >/dev/null || { echo "skipped: radvd is not installed (scripts/install-deps)"; exit 77; }

lab_up
prefix=2001:db8:$(printf %x $((RANDOM % 65536)))::
start_radvd "
    AdvSendAdvert on;
    MinRtrAdvInterval 3;
    MaxRtrAdvInterval 4;
    AdvManagedFlag on;
    AdvOtherConfigFlag on;
    AdvDefaultLifetime 600;
    AdvReachableTime 30000;
    AdvRetransTimer 1000;
    prefix $prefix/64 {
        AdvOnLink on;
        AdvAutonomous on;
        AdvValidLifetime 86400;
        AdvPreferredLifetime 14400;
    };
    RDNSS 2001:db8::53 2001:db8::54 {
        AdvRDNSSLifetime 8;
    };"
start_watch watch
start_solicd
wait_ready 20

# Router, network, DNS list: the first three updates, in that order, from the first RA.
wait_lines "$WORK/watch.out" 3 20
expect_json "$WORK/watch.out" 1 "
    .kind == \"router_updated\" and .address == \"$LL_R\" and .routerLifetime == 600 and
    .reachableTime == 30000 and .retransTimer == 1000 and .flags == 6 and .status.state == \"STATE_NEW\" and
    .status.id == 1 and .status.expiryTime == .status.timeoutStartTime + 600" "the router as advertised"
expect_json "$WORK/watch.out" 2 "
    .kind == \"network_updated\" and .prefix == \"$prefix\" and .prefixLength == 64 and
    .validLifetime == 86400 and .preferredLifetime == 14400 and .flags == 48 and
    .status.state == \"STATE_NEW\" and .status.lifetimeResetCount == 0" "the prefix as advertised"
expect_json "$WORK/watch.out" 3 "
    .kind == \"dns_servers_updated\" and (.servers | length) == 2 and
    [.servers[] | .address] == [\"2001:db8::53\", \"2001:db8::54\"] and
    [.servers[] | .lifetime] == [8, 8] and [.servers[] | .index] == [0, 1] and
    [.servers[] | .status.state] == [\"STATE_NEW\", \"STATE_NEW\"]" "both DNS servers as advertised"

# The routers answer, decoded.
"$SOLICCTL" routers "$DAEMON_MBOX" --json >"$WORK/routers.out" || fail "routers request"
expect_json "$WORK/routers.out" 1 "
    .kind == \"routers\" and (.routers | length) == 1 and .routers[0].address == \"$LL_R\" and
    .routers[0].routerLifetime == 600 and .routers[0].flags == 6" "one router"
"$SOLICCTL" routers "$DAEMON_MBOX" >"$WORK/routers-text.out" || fail "routers request (text)"
[ "$(head -n 1 "$WORK/routers-text.out")" = "routers: 1" ] || fail "text routers answer"
grep -q "^{config: {address: $LL_R, reachableTime: 30000, retransTimer: 1000, routerLifetime: 600, flags: 0x6}" \
    "$WORK/routers-text.out" || fail "router line of the text answer"

# The show-cache answer: every section, then the socket counters and the parser counters.
"$SOLICCTL" show "$DAEMON_MBOX" >"$WORK/show.out" || fail "show-cache request"
grep -q "^Routers:{config: {address: $LL_R, reachableTime: 30000, retransTimer: 1000, routerLifetime: 600, flags: 0x6}" \
    "$WORK/show.out" || fail "Routers: section"
grep -q "^Networks:{config: {prefix: $prefix, prefixLength: 64, validLifetime: 86400, preferredLifetime: 14400, flags: 0x30}" \
    "$WORK/show.out" || fail "Networks: section"
grep -q "^DNS Servers:{config: {index: 0, address: 2001:db8::53, lifetime: 8}" "$WORK/show.out" ||
    fail "DNS Servers: section"
grep -q "^{config: {index: 1, address: 2001:db8::54, lifetime: 8}" "$WORK/show.out" || fail "second DNS server"
grep -Eq '^Counters:\{rxRa: [1-9][0-9]*, txRs: [0-3], txRsFailed: 0, rxRejected: 0\}\{raParsed: [1-9][0-9]*, raDropped: 0, prefixAccepted: [1-9][0-9]*, prefixIgnored: 0\}$' \
    "$WORK/show.out" || fail "Counters: section with both counter sets"
order=$(grep -oE '^(Routers|Networks|DNS Servers|Counters):' "$WORK/show.out" | tr '\n' ' ')
[ "$order" = "Routers: Networks: DNS Servers: Counters: " ] || fail "section order: $order"

alive "$SOLICD_PID" || fail "solicd ended"
[ ! -s "$WORK/solicd.err" ] || fail "solicd wrote to stderr"
echo "PASS"

#!/usr/bin/env bash
# `solicctl status` against the real daemon: radvd advertises a router, a prefix and two DNS
# servers; status lists them with their flags and with the lifetimes left that the daemon's own
# time points give (between two readings of the clock around the call). A crafted router then
# expires and a crafted prefix is deprecated: status shows both after the active entries, with
# their states, the router's lifetime as "expired".
source "$(dirname "$0")/e2e_lib.sh"
command -v radvd >/dev/null || { echo "skipped: radvd is not installed (scripts/install-deps)"; exit 77; }

lab_up
prefix=2001:db8:$(printf %x $((RANDOM % 65536)))::
# solicd first, and radvd only once solicd's first solicitation is out: an RA before it (radvd
# sends one as it starts) would rightly leave solicd with nothing to solicit.
start_solicd
wait_ready 20
wait_counter txRs 1 10
start_radvd "
    AdvSendAdvert on;
    MinRtrAdvInterval 3;
    MaxRtrAdvInterval 4;
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
        AdvRDNSSLifetime 600;
    };"
wait_show "address: 2001:db8::54" 20

# The two units of a duration as status prints them ("9m 58s", "23h 59m").
duration()
{
    local s=$1 unit next
    [ "$s" -ge 0 ] || s=0
    local -a sizes=(86400 3600 60 1) names=(d h m s)
    for unit in 0 1 2 3; do
        if [ $((s / sizes[unit])) -gt 0 ] || [ $unit -eq 3 ]; then
            local text="$((s / sizes[unit]))${names[unit]}"
            if [ $unit -lt 3 ]; then
                next=$((s % sizes[unit] / sizes[unit + 1]))
                [ "$next" -eq 0 ] || text="$text ${next}${names[unit + 1]}"
            fi
            echo "$text"
            return
        fi
    done
}

# status ARGS...: status text in status.out and JSON in status.json, both taken between two
# readings of the clock (BEFORE and AFTER, seconds since the epoch).
take_status()
{
    BEFORE=$(date +%s)
    "$SOLICCTL" status "$DAEMON_MBOX" >"$WORK/status.out" 2>"$WORK/status.err" || fail "status: $(cat "$WORK/status.err")"
    "$SOLICCTL" status "$DAEMON_MBOX" --json >"$WORK/status.json" 2>>"$WORK/status.err" || fail "status --json"
    AFTER=$(date +%s)
    [ ! -s "$WORK/status.err" ] || fail "status wrote to stderr: $(cat "$WORK/status.err")"
}

# row KEY: the table row that starts with KEY, its cells separated by two or more blanks.
row() { grep -E "^$1  " "$WORK/status.out" | sed -E 's/  +/|/g'; }

# expect_left CELL START LIFETIME WHAT: CELL is what is left of LIFETIME started at START, at a
# moment between BEFORE and AFTER.
expect_left()
{
    local now
    for now in $(seq "$BEFORE" "$AFTER"); do
        [ "$1" = "$(duration $(($2 + $3 - now)))" ] && return 0
    done
    fail "$4: '$1' left, not what $3 s from $2 leave between $BEFORE and $AFTER"
}

take_status
sed -n 1p "$WORK/status.out" | grep -qx "$DAEMON_MBOX: 1 router, 1 prefix, 2 DNS servers active" ||
    fail "header: $(sed -n 1p "$WORK/status.out")"
# radvd's first advertisements may come before solicd's first solicitation (0 to 1 s after start).
sed -n 2p "$WORK/status.out" |
    grep -Eqx 'rx [1-9][0-9]* RAs, 0 rejected; [0-3] RS sent; parsed [1-9][0-9]*, dropped 0; prefixes [1-9][0-9]* accepted, 0 ignored' ||
    fail "counters: $(sed -n 2p "$WORK/status.out")"

start=$(jq -r ".routers[] | select(.address == \"$LL_R\") | .status.timeoutStartTime" "$WORK/status.json")
IFS='|' read -r address state left flags reachable retrans updated <<<"$(row "$LL_R")"
[ "$address|$state|$flags|$reachable|$retrans" = "$LL_R|STATE_NEW|O|30s|1s" ] ||
    [ "$address|$state|$flags|$reachable|$retrans" = "$LL_R|STATE_UPDATED|O|30s|1s" ] ||
    fail "router row: $(row "$LL_R")"
expect_left "$left" "$start" 600 "router lifetime"
[[ $updated =~ ^[0-9]+s\ ago$ ]] || fail "router updated: '$updated'"

start=$(jq -r '.networks[0].status.timeoutStartTime' "$WORK/status.json")
IFS='|' read -r key state valid preferred flags <<<"$(row "$prefix/64")"
[ "$key|$flags" = "$prefix/64|L A" ] || fail "prefix row: $(row "$prefix/64")"
[[ $state =~ ^STATE_(NEW|UPDATED)$ ]] || fail "prefix state: $state"
expect_left "$valid" "$start" 86400 "valid lifetime"
expect_left "$preferred" "$start" 14400 "preferred lifetime"

for server in 2001:db8::53 2001:db8::54; do
    start=$(jq -r ".dnsServers[] | select(.address == \"$server\") | .status.timeoutStartTime" "$WORK/status.json")
    IFS='|' read -r address state left <<<"$(row "$server")"
    [[ $state =~ ^STATE_(NEW|UPDATED)$ ]] || fail "DNS server $server: $(row "$server")"
    expect_left "$left" "$start" 600 "DNS server $server lifetime"
done

# A second router that lives 2 s, with a prefix preferred for 2 s and valid for an hour. radvd
# goes first, without the goodbye RA it sends when asked to end (its router stays for its 600 s),
# and before the crafted router's address exists: radvd would take it up as its own source.
kill -KILL "$RADVD_PID"
wait "$RADVD_PID" 2>/dev/null || true
router_address fe80::a
send_ra fe80::a lifetime=2 flags=M prefix=2001:db8:dead::/64,3600,2
wait_show "address: fe80::a, .*state: STATE_EXPIRED" 10
wait_show "prefix: 2001:db8:dead::, .*state: STATE_DEPRECATED" 10
take_status
sed -n 1p "$WORK/status.out" | grep -qx "$DAEMON_MBOX: 1 router, 1 prefix, 2 DNS servers active" ||
    fail "header after expiry: $(sed -n 1p "$WORK/status.out")"
[ "$(row fe80::a | cut -d'|' -f1-4)" = "fe80::a|STATE_EXPIRED|expired|M" ] || fail "expired router row: $(row fe80::a)"
IFS='|' read -r key state valid preferred flags <<<"$(row 2001:db8:dead::/64)"
[ "$state|$preferred|$flags" = "STATE_DEPRECATED|expired|L A" ] || fail "deprecated prefix row: $(row 2001:db8:dead::/64)"
start=$(jq -r '.networks[] | select(.prefix == "2001:db8:dead::") | .status.timeoutStartTime' "$WORK/status.json")
expect_left "$valid" "$start" 3600 "a deprecated prefix's valid lifetime"
# Inactive entries come after the active ones in their tables.
routers=$(awk '/^Routers$/ { on = 1; next } /^$/ { on = 0 } on { print $1 }' "$WORK/status.out" | tail -n +2 | tr '\n' ' ')
[ "$routers" = "$LL_R fe80::a " ] || fail "router order: $routers"
prefixes=$(awk '/^Prefixes$/ { on = 1; next } /^$/ { on = 0 } on { print $1 }' "$WORK/status.out" | tail -n +2 | tr '\n' ' ')
[ "$prefixes" = "$prefix/64 2001:db8:dead::/64 " ] || fail "prefix order: $prefixes"
# No colour when the output is not a terminal.
! grep -q $'\033' "$WORK/status.out" || fail "colour in a file"

alive "$SOLICD_PID" || fail "solicd ended"
echo "PASS"

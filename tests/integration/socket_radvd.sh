#!/usr/bin/env bash
# A real router answers the first Router Solicitation: the cycle ends after one RS, and the
# answer is accepted and printed in verbose mode.
source "$(dirname "$0")/socket_lib.sh"
command -v radvd >/dev/null || { echo "skipped: radvd is not installed (scripts/install-deps)"; exit 77; }

A=sdA$RUN B=sdB$RUN
IA=da$RUN IB=db$RUN
linked_pair "$A" "$IA" "$B" "$IB"
ip netns exec "$B" sysctl -qw net.ipv6.conf.all.forwarding=1
wait_dad "$A" "$IA"
wait_dad "$B" "$IB"
llB=$(link_local "$B" "$IB")

# Unsolicited advertisements far apart, so that the one after the RS is the answer to it.
cat >"$WORK/radvd.conf" <<EOF
interface $IB {
    AdvSendAdvert on;
    MinRtrAdvInterval 200;
    MaxRtrAdvInterval 600;
    prefix 2001:db8:$(printf %x $RANDOM)::/64 {};
};
EOF
# Router Advertisements that reached namespace A (its ICMPv6 layer counts them, socket or not).
ras_in_a() { ip netns exec "$A" awk '$1 == "Icmp6InType134" { n = $2 } END { print n + 0 }' /proc/net/snmp6; }
ip netns exec "$B" radvd -n -C "$WORK/radvd.conf" -p "$WORK/radvd.pid" -m stderr -d 1 >"$WORK/radvd.out" 2>&1 &
radvd_pid=$!
PIDS+=($radvd_pid)
# radvd sends its first advertisement when it starts: the driver listens once it has passed.
deadline=$((SECONDS + 20))
until [ "$(ras_in_a)" -ge 1 ]; do
    kill -0 "$radvd_pid" 2>/dev/null || fail "radvd did not start: $(cat "$WORK/radvd.out")"
    [ $SECONDS -lt $deadline ] || fail "radvd's first advertisement did not come"
    sleep 0.1
done

start_driver ra --ns "$A" --if "$IA" --seconds 8 --verbose
wait "$LAST_PID" || fail "driver"
expect_trace "$WORK/ra.out" INFO GENERAL \
    "cbExpired(): [] Finished router solicitation. Sent 1 RS messages, RA detected."
[ "$(grep -c 'RS Sent' "$WORK/ra.out")" = 1 ] || fail "more than one RS"
expect_trace "$WORK/ra.out" LAB GENERAL "receive(): [] RA received after solicitation"
grep -qP "^RECV\t0\t1\t[0-9]+\t$llB\t" "$WORK/ra.out" || fail "the router's RA was not accepted"
grep -qE "^Received an IPv6 Router Advertisement from $llB on interface $IA sent to (ff02::1|fe80:[0-9a-f:]+)$" \
    "$WORK/ra.out" || fail "no verbose line for the router's RA"
grep -qP "^COUNTERS\t[1-9][0-9]*\t1\t0\t0$" "$WORK/ra.out" || fail "counters"

echo "PASS"

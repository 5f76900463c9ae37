#!/usr/bin/env bash
# Binding to a link-local address that is still tentative: init retries every 100 ms, succeeds
# once duplicate address detection is over, and gives up after exactly 200 attempts otherwise.
source "$(dirname "$0")/socket_lib.sh"
command -v strace >/dev/null || { echo "skipped: strace is not installed (scripts/install-deps)"; exit 77; }

A=sbA$RUN B=sbB$RUN
new_ns "$A"
new_ns "$B"
# Two links whose peer ends stay down: without carrier an address stays tentative.
IA=ba$RUN IB=bb$RUN
IC=bc$RUN ID=bd$RUN
for pair in "$IA $IB" "$IC $ID"; do
    set -- $pair
    veth "$A" "$1" "$B" "$2"
    ip -n "$A" link set "$1" addrgenmode none
    ip -n "$A" link set "$1" up
    ip -n "$A" addr add fe80::1/64 dev "$1"
done
ip -n "$A" -6 addr show dev "$IA" | grep -q tentative || fail "the address on $IA is not tentative"

strace -f -qq -e trace=bind -o "$WORK/strace-never.txt" timeout -k 2 60 "$DRIVER" --ns "$A" --if "$IC" --seconds 1 \
    >"$WORK/never.out" 2>&1 &
never_pid=$!
PIDS+=($never_pid)

strace -f -qq -e trace=bind -o "$WORK/strace-later.txt" timeout -k 2 60 "$DRIVER" --ns "$A" --if "$IA" --seconds 1 \
    >"$WORK/later.out" 2>&1 &
later_pid=$!
PIDS+=($later_pid)
# Ten refused binds (a second of retrying) before the address can become usable.
deadline=$((SECONDS + 30))
until [ "$(grep -c 'bind(.*AF_INET6.*= -1' "$WORK/strace-later.txt" 2>/dev/null || true)" -ge 10 ]; do
    [ $SECONDS -lt $deadline ] || fail "init did not retry its bind: $(cat "$WORK/strace-later.txt")"
    sleep 0.1
done
# Carrier: duplicate address detection runs and the address becomes usable.
ip -n "$B" link set "$IB" up
wait "$later_pid" || fail "init did not bind once the address was usable"
attempts=$(grep -oP '^T\tINFO\tADDR_IPV6\tinit\(\): \[\] Bind successful after \K[0-9]+(?= attempts\.$)' "$WORK/later.out")
echo "bind succeeded after $attempts attempts"
[ -n "$attempts" ] && [ "$attempts" -ge 10 ] && [ "$attempts" -lt 200 ] || fail "bind attempts: '$attempts'"

wait "$never_pid" && fail "init bound to an address that never became usable"
expect_trace "$WORK/never.out" ERROR ADDR_IPV6 \
    "init(): [] Error from bind(), error: Cannot assign requested address (99) Bind failed"
has_line "$WORK/never.out" "INIT	1" || fail "init result after 200 failed binds"
binds=$(grep -c 'bind(.*AF_INET6' "$WORK/strace-never.txt" || true)
[ "$binds" = 200 ] || fail "$binds binds made, expected 200"
[ "$(grep 'bind(.*AF_INET6' "$WORK/strace-never.txt" | grep -c '= 0$' || true)" = 0 ] || fail "a bind succeeded"

echo "PASS"

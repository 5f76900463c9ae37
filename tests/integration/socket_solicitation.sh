#!/usr/bin/env bash
# With no router on the link the driver sends exactly three Router Solicitations, 4 s apart;
# tshark on the peer end captures and dissects every one.
source "$(dirname "$0")/socket_lib.sh"

A=srA$RUN B=srB$RUN
IA=ra$RUN IB=rb$RUN
linked_pair "$A" "$IA" "$B" "$IB"
wait_dad "$A" "$IA"
lladdr=$(link_local "$A" "$IA")
hw=$(mac "$A" "$IA")

pcap=$WORK/rs.pcap
ip netns exec "$B" tshark -i "$IB" -f "icmp6 and ip6[40] == 133" -w "$pcap" >"$WORK/tshark.out" 2>&1 &
tshark_pid=$!
PIDS+=($tshark_pid)
deadline=$((SECONDS + 30))
until grep -q "Capturing on" "$WORK/tshark.out"; do
    [ $SECONDS -lt $deadline ] || fail "tshark did not start"
    sleep 0.1
done

start_driver rs --ns "$A" --if "$IA" --seconds 14
finished=$(trace_line INFO GENERAL "cbExpired(): [] Finished router solicitation. Sent 3 RS messages, noRA detected.")
wait_line "$WORK/rs.out" "$finished" 20
wait "$LAST_PID" || fail "driver"
# The last solicitation left 4 s before the cycle finished: tshark has it.
kill -INT "$tshark_pid"
wait "$tshark_pid" || true

[ "$(count_lines "$WORK/rs.out" "$(trace_line INFO GENERAL "dispatchRs(): [] RS Sent , m_ifName= $IA, m_ns= $A")")" = 3 ] ||
    fail "not three 'RS Sent' lines"
has_line "$WORK/rs.out" "COUNTERS	0	3	0	0" || fail "counters after three solicitations"

tshark -r "$pcap" -T fields -E separator=, -e frame.time_relative -e icmpv6.type -e icmpv6.code -e ipv6.hlim \
    -e ipv6.src -e ipv6.dst -e ipv6.plen -e icmpv6.opt.type -e icmpv6.opt.linkaddr -e icmpv6.checksum.status \
    >"$WORK/rs.fields" 2>"$WORK/tshark-read.out" || fail "tshark could not read the capture"
cat "$WORK/rs.fields"
[ "$(wc -l <"$WORK/rs.fields")" = 3 ] || fail "expected exactly 3 Router Solicitations on the link"
previous=""
while IFS=, read -r time type code hlim src dst plen opt linkaddr checksum; do
    [ "$type" = 133 ] && [ "$code" = 0 ] || fail "not an RS: type $type code $code"
    [ "$hlim" = 255 ] || fail "hop limit $hlim"
    [ "$src" = "$lladdr" ] || fail "source $src, expected $lladdr"
    [ "$dst" = ff02::2 ] || fail "destination $dst"
    [ "$plen" = 16 ] || fail "payload length $plen"
    [ "$opt" = 1 ] || fail "option type $opt, expected source link-layer address"
    [ "$linkaddr" = "$hw" ] || fail "link-layer address $linkaddr, expected $hw"
    [ "$checksum" = 1 ] || fail "checksum status $checksum"
    if [ -n "$previous" ]; then
        # The timer never fires early; a loaded machine may run it late.
        awk -v a="$previous" -v b="$time" 'BEGIN { d = b - a; exit !(d > 3.9 && d < 6) }' ||
            fail "solicitations $previous s and $time s are not 4 s apart"
    fi
    previous=$time
done <"$WORK/rs.fields"

echo "PASS"

#!/usr/bin/env bash
# The client is killed with SIGKILL and started again 50 times while RAs keep coming: every time
# it receives the whole cache again (each router, each network, the DNS servers as one list), and
# solicd's open descriptors and memory do not grow. Both are taken after the first round, when
# every buffer the link needs has been allocated once; the RSS may differ by at most
# RSS_TOLERANCE_KIB (the allocator keeps freed pages as it sees fit), the descriptors not at all.
source "$(dirname "$0")/e2e_lib.sh"

RA_FLOOD=$BIN/ra_flood
[ -x "$RA_FLOOD" ] || fail "$RA_FLOOD is not built"
ROUNDS=50
RSS_TOLERANCE_KIB=256

lab_up
start_solicd
wait_ready 20

# The cache: the typical RA (router fe80::1, one prefix, two DNS servers), then 300 RAs of three
# more routers, each with two DNS servers of its own and new prefixes until the cap of 128.
flood() { ip netns exec "$RTR" "$RA_FLOOD" --interface "$IR" "$@" >>"$WORK/flood.out" 2>>"$WORK/flood.err"; }
flood --mode typical --count 3 || fail "sending the typical RA"
flood --mode unique --count 300 --rate 1000 || fail "sending the unique RAs"
deadline=$((SECONDS + 20))
until show_has '^Counters:{rxRa: 303,'; do
    [ $SECONDS -lt $deadline ] || fail "solicd did not receive the 303 RAs: $(grep Counters "$WORK/show.last")"
    sleep 0.2
done
read -r routers networks dns < <(awk '/^Routers:/ {s = "r"} /^Networks:/ {s = "n"} /^DNS Servers:/ {s = "d"}
    /^Counters:/ {s = ""} {c[s] += gsub(/\{config:/, "&")} END {print c["r"] + 0, c["n"] + 0, c["d"] + 0}' \
    "$WORK/show.last")
[ "$routers" -eq 4 ] && [ "$networks" -eq 128 ] && [ "$dns" -eq 8 ] ||
    fail "cache of $routers routers, $networks networks, $dns DNS servers; expected 4, 128, 8"
whole=$((routers + networks + 1))

# The RAs that keep coming: the typical one again, 200 a second; it changes nothing.
flood --mode typical --seconds 600 --rate 200 &
PIDS+=($!)

fds() { find "/proc/$SOLICD_PID/fd" -mindepth 1 -maxdepth 1 | wc -l; }
rss() { awk '/^VmRSS:/ {print $2}' "/proc/$SOLICD_PID/status"; }

# stable_count FILE: its line count once it has not changed for 0.3 s (at most 5 s).
stable_count() {
    local last=-1 now deadline=$((SECONDS + 5))
    now=$(line_count "$1")
    while [ "$now" -ne "$last" ] && [ $SECONDS -lt $deadline ]; do
        last=$now
        sleep 0.3
        now=$(line_count "$1")
    done
    echo "$now"
}

# round N: a new client; the whole cache, nothing more; then SIGKILL. A client that comes back
# while its killed predecessor is still being taken down may be sent the whole cache twice (seen
# once in about a thousand rounds, on a loaded machine): harmless to a client, which takes every
# update as the entry's new state, so a repeat is counted, not failed; anything that is not whole
# caches fails.
REPEATS=0
round() {
    local out=$WORK/watch$1.out
    start_watch "watch$1"
    wait_lines "$out" "$whole" 10
    local lines caches
    lines=$(stable_count "$out")
    caches=$((lines / whole))
    [ $((lines % whole)) -eq 0 ] || fail "round $1: $lines updates, expected $whole"
    [ "$caches" -eq 1 ] || REPEATS=$((REPEATS + 1))
    local counts
    counts=$(jq -s -r '[([.[] | select(.kind == "router_updated")] | length),
        ([.[] | select(.kind == "network_updated")] | length),
        ([.[] | select(.kind == "dns_servers_updated") | .servers | length] | add)] | @tsv' "$out")
    [ "$counts" = "$(printf '%s\t%s\t%s' $((caches * routers)) $((caches * networks)) $((caches * dns)))" ] ||
        fail "round $1: routers, networks, DNS servers received: $counts"
    kill -KILL "$WATCH_PID"
    wait "$WATCH_PID" 2>/dev/null || true
    alive "$SOLICD_PID" || fail "solicd ended in round $1"
}

round 1
fds_first=$(fds)
rss_first=$(rss)
for n in $(seq 2 "$ROUNDS"); do
    round "$n"
done
fds_last=$(fds)
rss_last=$(rss)
[ "$fds_last" -le "$fds_first" ] || fail "open descriptors grew from $fds_first to $fds_last"
[ "$rss_last" -le $((rss_first + RSS_TOLERANCE_KIB)) ] ||
    fail "RSS grew from $rss_first KiB to $rss_last KiB (tolerance $RSS_TOLERANCE_KIB KiB)"
[ ! -s "$WORK/solicd.err" ] || fail "solicd wrote to stderr: $(cat "$WORK/solicd.err")"
echo "PASS: $ROUNDS clients got the whole cache ($whole updates), $REPEATS of them twice;" \
    "descriptors $fds_first -> $fds_last, RSS $rss_first -> $rss_last KiB"

#!/usr/bin/env bash
# Twenty seconds of RAs that each announce a new prefix, from a new router every 100 RAs, as fast
# as the link takes them: solicd stays up, answers every show-cache request meanwhile, and its
# stores stop at their caps (64 routers, 128 networks, 128 DNS servers). A client is connected
# throughout, so that nothing the flood causes can end in a restart request; the lifetimes are
# long enough that nothing expires during the run.
source "$(dirname "$0")/e2e_lib.sh"

RA_FLOOD=$BIN/ra_flood
[ -x "$RA_FLOOD" ] || fail "$RA_FLOOD is not built"
FLOOD_SECONDS=20

lab_up
start_solicd
wait_ready 20
start_watch watch

ip netns exec "$RTR" "$RA_FLOOD" --interface "$IR" --mode unique --seconds "$FLOOD_SECONDS" \
    >"$WORK/flood.out" 2>"$WORK/flood.err" &
flood_pid=$!
PIDS+=("$flood_pid")

answers=0
while alive "$flood_pid"; do
    alive "$SOLICD_PID" || fail "solicd ended during the flood"
    "$SOLICCTL" show "$DAEMON_MBOX" >"$WORK/show.during" 2>"$WORK/show.err" ||
        fail "no show-cache answer during the flood: $(cat "$WORK/show.err")"
    grep -q '^Counters:{rxRa: ' "$WORK/show.during" || fail "the show-cache answer has no counters"
    answers=$((answers + 1))
    sleep 2
done
wait_exit "$flood_pid" 5
[ "$EXIT_STATUS" -eq 0 ] || fail "the flood sender failed: $(cat "$WORK/flood.err")"
[ "$answers" -ge 5 ] || fail "only $answers show-cache requests during the flood"

alive "$SOLICD_PID" || fail "solicd ended after the flood"
"$SOLICCTL" show "$DAEMON_MBOX" >"$WORK/show.after" || fail "no show-cache answer after the flood"
read -r routers networks dns < <(awk '/^Routers:/ {s = "r"} /^Networks:/ {s = "n"} /^DNS Servers:/ {s = "d"}
    /^Counters:/ {s = ""} {c[s] += gsub(/\{config:/, "&")} END {print c["r"] + 0, c["n"] + 0, c["d"] + 0}' \
    "$WORK/show.after")
[ "$routers" -eq 64 ] && [ "$networks" -eq 128 ] && [ "$dns" -eq 128 ] ||
    fail "stores hold $routers routers, $networks networks, $dns DNS servers; the caps are 64, 128, 128"
received=$(sed -nE 's/^Counters:\{rxRa: ([0-9]+),.*/\1/p' "$WORK/show.after")
[ "${received:-0}" -ge 6400 ] || fail "only ${received:-0} RAs received: too few to reach every cap"
[ ! -s "$WORK/solicd.err" ] || fail "solicd wrote to stderr"
echo "PASS: $(cat "$WORK/flood.out"), $received received; $answers answers during the flood; caps held"

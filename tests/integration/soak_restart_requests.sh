#!/usr/bin/env bash
# Twenty restart requests in a row under a supervisor loop. Each time solicd runs with no client
# and receives an RA whose prefix is preferred for 1 s and valid for 2 s: the expiry cannot be
# forwarded, so solicd asks for a restart (exit status 70, one line on stderr naming
# LmxMgr::notify) and the loop starts it again. Afterwards it still works: it answers show-cache
# with an empty cache.
source "$(dirname "$0")/e2e_lib.sh"

RA_FLOOD=$BIN/ra_flood
[ -x "$RA_FLOOD" ] || fail "$RA_FLOOD is not built"
ROUNDS=20
# No wait for a tracing session daemon at start: twenty starts in a row.
export LTTNG_UST_REGISTER_TIMEOUT=0

lab_up

# short_lived_ra: router fe80::1 (lifetime 1800 s) with prefix 2001:db8:1::/64 preferred for 1 s,
# valid for 2 s; sent again (at most three times) until solicd shows the prefix, so that a frame
# lost while the link settles cannot stall the round.
short_lived_ra() {
    local try
    for try in 1 2 3; do
        ip netns exec "$RTR" "$RA_FLOOD" --interface "$IR" --count 1 --preferred 1 --valid 2 --no-dns \
            >>"$WORK/flood.out" 2>>"$WORK/flood.err" || fail "sending the RA: $(cat "$WORK/flood.err")"
        local deadline=$((SECONDS + 1))
        while [ $SECONDS -le $deadline ]; do
            show_has '^Networks:{config: {prefix: 2001:db8:1::, prefixLength: 64' && return 0
            sleep 0.05
        done
    done
    fail "solicd never showed the prefix"
}

# ready PID: until solicd answers show-cache (polled often: the rounds add up).
ready() {
    local deadline=$((SECONDS + 20))
    until "$SOLICCTL" show "$DAEMON_MBOX" >/dev/null 2>&1; do
        alive "$1" || fail "solicd ended before it answered"
        [ $SECONDS -lt $deadline ] || fail "solicd did not answer within 20 s"
        sleep 0.05
    done
}

restart_line='^solicd: restart requested at [^ ]+\.cpp:[0-9]+: LmxMgr::notify$'
for n in $(seq 1 "$ROUNDS"); do
    "$SOLICD" -n "$HOST" -i "$IH" -s "$DAEMON_MBOX" -d "$CLIENT_MBOX" >>"$WORK/solicd.out" \
        2>"$WORK/solicd$n.err" &
    pid=$!
    PIDS+=("$pid")
    ready "$pid"
    short_lived_ra
    wait_exit "$pid" 15
    [ "$EXIT_STATUS" -eq 70 ] || fail "round $n: exit status $EXIT_STATUS, not the restart request's 70"
    [ "$(wc -l <"$WORK/solicd$n.err")" -eq 1 ] && grep -Eq "$restart_line" "$WORK/solicd$n.err" ||
        fail "round $n: stderr is not the one restart request: $(cat "$WORK/solicd$n.err")"
done

start_solicd
ready "$SOLICD_PID"
"$SOLICCTL" show "$DAEMON_MBOX" >"$WORK/show.out" || fail "no show-cache answer after the restarts"
grep -qx 'Routers:' "$WORK/show.out" && grep -qx 'Networks:' "$WORK/show.out" ||
    fail "the solicd after the restarts does not start with an empty cache"
echo "PASS: $ROUNDS restart requests, each with status 70 and its line; solicd answers afterwards"

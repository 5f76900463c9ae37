#!/usr/bin/env bash
# 200,000 distinct short-lived peers of the real solicd, as a metrics timer makes them over
# months and a hostile member of the mailbox group in seconds: each (lmx_churn) creates a mailbox
# of its own, asks for the routers, takes the answer and deletes its mailbox; a thousand one
# after another, then the rest four at a time. Afterwards `solicctl show` is answered within a
# second, and solicd's resident memory is what it was after the first thousand: what the mailbox
# service keeps of its peers is bounded by the peers alive.
source "$(dirname "$0")/e2e_lib.sh"
CHURN=$BIN/lmx_churn
[ -x "$CHURN" ] || fail "$CHURN is not built"
FIRST=1000
STREAMS=4
PER_STREAM=49750  # FIRST + STREAMS * PER_STREAM = 200,000
# What the daemon's heap may move by between two looks without keeping anything per peer; a
# name kept per peer would be several MiB by the end, and past 65,536 no peer would be answered.
SLACK_KIB=512

lab_up
start_solicd
wait_ready 20
rss_kib() { awk '/^VmRSS:/ { print $2 }' "/proc/$SOLICD_PID/status"; }

started=$SECONDS
"$CHURN" "$DAEMON_MBOX" "$FIRST" 2>"$WORK/churn.err" || fail "the first $FIRST peers: $(cat "$WORK/churn.err")"
first=$(rss_kib)
streams=()
for i in $(seq 1 "$STREAMS"); do
    "$CHURN" "$DAEMON_MBOX" "$PER_STREAM" 2>"$WORK/churn$i.err" &
    streams+=("$!")
    PIDS+=("$!")
done
for i in $(seq 1 "$STREAMS"); do
    wait_exit "${streams[$((i - 1))]}" 200
    [ "$EXIT_STATUS" -eq 0 ] || fail "peer stream $i ended with $EXIT_STATUS: $(cat "$WORK/churn$i.err")"
done
took=$((SECONDS - started))
last=$(rss_kib)

before_show=$(date +%s%N)
"$SOLICCTL" show "$DAEMON_MBOX" --timeout 1 >"$WORK/show.out" 2>"$WORK/show.err" ||
    fail "solicctl show after 200,000 peers: $(cat "$WORK/show.err")"
show_ms=$((($(date +%s%N) - before_show) / 1000000))
grep -q '^Counters:' "$WORK/show.out" || fail "the show answer has no counters: $(cat "$WORK/show.out")"
[ "$show_ms" -lt 1000 ] || fail "solicctl show took $show_ms ms after 200,000 peers"
[ "$last" -le $((first + SLACK_KIB)) ] ||
    fail "solicd's resident memory grew from $first KiB after $FIRST peers to $last KiB after 200,000"
alive "$SOLICD_PID" || fail "solicd ended"
echo "PASS: 200,000 peers in $took s; solicd $first KiB after $FIRST, $last KiB after 200,000; show answered in $show_ms ms"

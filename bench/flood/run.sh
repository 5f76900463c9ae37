#!/usr/bin/env bash
# The flood benchmark (root). Two network namespaces joined by veth: ra_flood sends Router
# Advertisements from one end, the receivers listen on the other, each within a CPU budget
# (lab.sh) so that the flood is always more than it can take. All figures come from one run:
#  A. typical flood (the same RA with a prefix and two DNS servers, as fast as the link takes it)
#     for FLOOD_SECONDS per window: the GLib reference (flood_reference: the daemon's socket
#     set-up, one recvmsg per GLib wakeup) alone, solicd alone, both side by side; then, each
#     alone, a bare blocking recvmsg loop on the same set-up (the receive limit), radvdump and
#     `ndptool monitor -t ra` (their output to a file, counted afterwards). RAs processed per
#     second, CPU per RA, socket drops, and solicd's ratios against each with their goals.
#  B. unique-prefix flood (every RA a new prefix, a new router every 100 RAs) for UNIQUE_SECONDS
#     into a fresh solicd without a budget, as a user runs it, with a `solicctl watch` client
#     connected: store sizes, RSS growth after the first 10 s, and how long `solicctl show` takes
#     meanwhile.
#  C. idle for IDLE_SECONDS right after B (no traffic, no timer due): wakeups per second.
# The table goes to stdout and to RESULTS (default bench/results/latest.md).
# SOLICD_BUILD (default build) names the build tree; SOLICD_DAEMON another solicd to measure.
set -euo pipefail

BENCH=bench-flood
source "$(dirname "$0")/lab.sh"
RESULTS=${RESULTS:-$SRC/bench/results/latest.md}
FLOOD_SECONDS=${FLOOD_SECONDS:-10}
UNIQUE_SECONDS=${UNIQUE_SECONDS:-60}
IDLE_SECONDS=${IDLE_SECONDS:-30}
for tool in radvdump ndptool; do
    command -v "$tool" >/dev/null || { echo "$BENCH: $tool is missing (scripts/install-deps)" >&2; exit 1; }
done

# measure PID...: CPU ticks and socket drops of each, one line each, "ticks drops".
measure() {
    local pid
    for pid in "$@"; do
        echo "$(cpu_ticks "$pid") $(socket_drops "$pid")"
    done
}

# row LABEL RECEIVED CPU_TICKS DROPS: one receiver's line of the table.
row() { echo "| $1 | $(rate "$2" "$SECONDS_SENT") | $(per_ra_us "$3" "$2") | $4 |"; }

# A1. The reference alone.
start_reference
read -r c0 d0 < <(measure "$REF_PID")
typical_flood
read -r c1 d1 < <(measure "$REF_PID")
stop_reference
ref_alone=$REF_RECEIVED
ref_alone_row=$(row "reference alone" "$ref_alone" $((c1 - c0)) $((d1 - d0)))
ref_alone_us=$(per_ra_us $((c1 - c0)) "$ref_alone")
sent_alone_rate=$(rate "$SENT" "$SECONDS_SENT")
SECONDS_REF=$SECONDS_SENT

# A2. solicd alone, once its solicitation cycle is over (three RSs, 4 s apart, none answered).
MBOX_A=flood-a-$RUN
start_daemon "$MBOX_A"
sol_pid=$DAEMON_PID
sleep 13
show "$MBOX_A" "$WORK/before.txt" >/dev/null
read -r c0 d0 < <(measure "$sol_pid")
typical_flood
read -r c1 d1 < <(measure "$sol_pid")
show "$MBOX_A" "$WORK/after.txt" >/dev/null
sol_alone=$(($(counter "$WORK/after.txt" rxRa) - $(counter "$WORK/before.txt" rxRa)))
sol_alone_row=$(row "solicd alone" "$sol_alone" $((c1 - c0)) $((d1 - d0)))
sol_alone_ticks=$((c1 - c0))
SECONDS_ALONE=$SECONDS_SENT
sent_sol_rate=$(rate "$SENT" "$SECONDS_SENT")
# And while RAs wait (A5).
show "$MBOX_A" "$WORK/before.txt" >/dev/null
drain "$sol_pid"
show "$MBOX_A" "$WORK/after.txt" >/dev/null
sol_drained=$(($(counter "$WORK/after.txt" rxRa) - $(counter "$WORK/before.txt" rxRa)))
sol_drain_ns=$DRAIN_NS sol_drain_all_ns=$DRAIN_ALL_NS

# A3. Both side by side on the one CPU: each gets the share of it that its cost per RA allows.
start_reference
show "$MBOX_A" "$WORK/before.txt" >/dev/null
read -r c0 d0 < <(measure "$sol_pid")
read -r r0 e0 < <(measure "$REF_PID")
typical_flood
read -r c1 d1 < <(measure "$sol_pid")
read -r r1 e1 < <(measure "$REF_PID")
show "$MBOX_A" "$WORK/after.txt" >/dev/null
stop_reference
ref_side=$REF_RECEIVED
sol_side=$(($(counter "$WORK/after.txt" rxRa) - $(counter "$WORK/before.txt" rxRa)))
kill -TERM "$sol_pid"
wait "$sol_pid" || true
ref_side_row=$(row "reference beside solicd" "$ref_side" $((r1 - r0)) $((e1 - e0)))
sol_side_row=$(row "solicd beside the reference" "$sol_side" $((c1 - c0)) $((d1 - d0)))
sent_side_rate=$(rate "$SENT" "$SECONDS_SENT")
ratio_side=$(ratio "$sol_side" "$ref_side")
ref_side_cpu_us=$(per_ra_us $((r1 - r0)) "$ref_side")
sol_side_cpu_us=$(per_ra_us $((c1 - c0)) "$sol_side")
cost_ratio=$(ratio "$ref_side_cpu_us" "$sol_side_cpu_us")

# A4. The receive limit and the peer tools, each alone on the receivers' CPU, on the same flood:
# what each processes per second and its CPU per RA, beside solicd alone (A2).
start_reference --blocking
read -r c0 _ < <(measure "$REF_PID")
typical_flood
read -r c1 _ < <(measure "$REF_PID")
stop_reference
limit_alone=$REF_RECEIVED
limit_rate=$(rate "$limit_alone" "$SECONDS_SENT")
limit_us=$(per_ra_us $((c1 - c0)) "$limit_alone")
sent_limit_rate=$(rate "$SENT" "$SECONDS_SENT")

# peer NAME PATTERN HOW COMMAND...: the tool in the receivers' namespace, pinned, its output to a
# file counted afterwards (PATTERN: the line each RA it processed prints), fed HOW: "flood" (the
# typical flood; sets PEER_RATE, PEER_US, PEER_SENT) or "drain" (sets PEER_COUNT, DRAIN_NS).
peer() {
    local name=$1 pattern=$2 how=$3 pid p0 p1
    shift 3
    ip netns exec "$NS" taskset -c "$RECV_CPU" "$@" >"$WORK/$name.txt" 2>"$WORK/$name.err" &
    pid=$!
    PIDS+=("$pid")
    sleep 1
    kill -0 "$pid" 2>/dev/null || fail "$name ended at start: $(cat "$WORK/$name.err")"
    if [ "$how" = drain ]; then
        drain "$pid"
    else
        p0=$(cpu_ticks "$pid")
        typical_flood
        p1=$(cpu_ticks "$pid")
    fi
    kill -TERM "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    PEER_COUNT=$(grep -c -- "$pattern" "$WORK/$name.txt" || true)
    rm -f "$WORK/$name.txt"
    if [ "$how" != drain ]; then
        PEER_RATE=$(rate "$PEER_COUNT" "$SECONDS_SENT")
        PEER_US=$(per_ra_us $((p1 - p0)) "$PEER_COUNT")
        PEER_SENT=$(rate "$SENT" "$SECONDS_SENT")
    fi
}
RADVDUMP=(radvdump '^# based on Router Advertisement from')
NDPTOOL=(ndptool '^  Type: RA$')
peer "${RADVDUMP[@]}" flood radvdump
radvdump_rate=$PEER_RATE radvdump_us=$PEER_US sent_radvdump_rate=$PEER_SENT
peer "${NDPTOOL[@]}" flood ndptool -i "$IF" monitor -t ra
ndptool_rate=$PEER_RATE ndptool_us=$PEER_US sent_ndptool_rate=$PEER_SENT

# A5. While RAs wait: each receiver's socket queue filled while it is stopped, then drained, again
# and again (drain, lab.sh); what each can take per second of CPU.
per_ra_ns() { awk -v t="$1" -v n="$2" 'BEGIN {if (n > 0) printf "%.0f", t / n; else print "-"}'; }
per_cpu_second() { awk -v t="$1" -v n="$2" 'BEGIN {if (t > 0) printf "%.0f", n / t * 1e9; else print "-"}'; }
start_reference
drain "$REF_PID"
stop_reference
ref_drained=$REF_RECEIVED ref_drain_ns=$DRAIN_NS ref_drain_all_ns=$DRAIN_ALL_NS
start_reference --blocking
drain "$REF_PID"
stop_reference
limit_drained=$REF_RECEIVED limit_drain_ns=$DRAIN_NS limit_drain_all_ns=$DRAIN_ALL_NS
peer "${RADVDUMP[@]}" drain radvdump
radvdump_drained=$PEER_COUNT radvdump_drain_ns=$DRAIN_NS radvdump_drain_all_ns=$DRAIN_ALL_NS
peer "${NDPTOOL[@]}" drain ndptool -i "$IF" monitor -t ra
ndptool_drained=$PEER_COUNT ndptool_drain_ns=$DRAIN_NS ndptool_drain_all_ns=$DRAIN_ALL_NS
sol_capacity=$(per_cpu_second "$sol_drain_ns" "$sol_drained")

sol_alone_rate=$(rate "$sol_alone" "$SECONDS_ALONE")
ratio_alone_rates=$(ratio "$sol_alone_rate" "$(rate "$ref_alone" "$SECONDS_REF")")
sol_alone_us=$(per_ra_us "$sol_alone_ticks" "$sol_alone")

# ---- B. Unique-prefix flood into a fresh solicd with its client connected
MBOX_B=flood-b-$RUN
start_daemon "$MBOX_B"
sol_pid=$DAEMON_PID
"$CTL" watch "client-$MBOX_B" >"$WORK/watch.txt" 2>"$WORK/watch.err" &
PIDS+=($!)
watch_pid=$!
# Connected once the daemon has answered the client's appearance (the empty cache sends nothing).
sleep 1
flood --mode unique --seconds "$UNIQUE_SECONDS" >"$WORK/unique.out" &
PIDS+=($!)
unique_pid=$!
start=$SECONDS
next_show=0
rss_10=""
rss_max=0
show_max=0
show_count=0
while kill -0 "$unique_pid" 2>/dev/null; do
    elapsed=$((SECONDS - start))
    rss=$(rss_kib "$sol_pid")
    [ "$rss" -gt "$rss_max" ] && rss_max=$rss
    if [ -z "$rss_10" ] && [ "$elapsed" -ge 10 ]; then
        rss_10=$rss
    fi
    if [ "$elapsed" -ge "$next_show" ]; then
        next_show=$((next_show + 5))
        ms=$(show "$MBOX_B" "$WORK/during.txt")
        show_count=$((show_count + 1))
        [ "$ms" -gt "$show_max" ] && show_max=$ms
    fi
    sleep 1
done
wait "$unique_pid"
read -r _ unique_sent _ _ <"$WORK/unique.out" || true
[ -n "${unique_sent:-}" ] || fail "the unique-prefix flood did not run"
rss_end=$(rss_kib "$sol_pid")
[ -n "$rss_10" ] || rss_10=$rss_end
show "$MBOX_B" "$WORK/unique.txt" >/dev/null
read -r routers networks dns < <(store_sizes "$WORK/unique.txt")
unique_rx=$(counter "$WORK/unique.txt" rxRa)
kill -0 "$sol_pid" 2>/dev/null || fail "solicd ended during the unique-prefix flood"

# ---- C. Idle: no traffic, no timer due (the shortest lifetime left is minutes away)
# The main thread is the daemon's own; the others are LTTng-UST's listeners, which here retry to
# reach a session daemon now and then.
main_before=$(wakeups "/proc/$sol_pid/status")
all_before=$(wakeups /proc/"$sol_pid"/task/*/status)
sleep "$IDLE_SECONDS"
main_after=$(wakeups "/proc/$sol_pid/status")
all_after=$(wakeups /proc/"$sol_pid"/task/*/status)
per_second() { awk -v n="$1" -v s="$IDLE_SECONDS" 'BEGIN {printf "%.2f", n / s}'; }
idle_rate=$(per_second $((main_after - main_before)))
idle_all_rate=$(per_second $((all_after - all_before)))
updates=$(wc -l <"$WORK/watch.txt")
kill -TERM "$watch_pid" "$sol_pid" 2>/dev/null || true

# ---- The table
# against LABEL TAKEN NS ALL_NS GOAL: a row of the last table of A, solicd against one receiver.
against() {
    local capacity r
    capacity=$(per_cpu_second "$3" "$2")
    r=$(ratio "$sol_capacity" "$capacity")
    echo "| $1 | $2 | $(($2 / DRAIN_CYCLES)) | $(per_ra_ns "$3" "$2") | $(per_ra_ns "$4" "$2") | $capacity | $r | >= $5, $(verdict "$r" "$5" ">=") |"
}
verdict() { awk -v v="$1" -v goal="$2" -v op="$3" 'BEGIN {
    ok = (op == ">=") ? v >= goal : v <= goal; print ok ? "met" : "NOT met" }'; }
rss_growth=$((rss_end - rss_10))
{
    echo "# Flood benchmark"
    echo
    echo "One run of \`make bench-flood\` ($(date -u '+%Y-%m-%d %H:%M UTC'), $(uname -r)," \
        "$(nproc) CPUs, load average before the run: $LOAD_BEFORE)."
    echo "Daemon: \`$(basename "$DAEMON")\` from $DAEMON_LABEL. No LTTng session: the receivers run where no"
    echo "session daemon can be reached."
    echo
    echo "## A. Typical RA flood (${FLOOD_SECONDS} s per window)"
    echo
    echo "Three windows of the same flood: the reference alone, solicd alone, both side by side. The"
    echo "sender is pinned to CPU $SEND_CPU, the receivers to CPU $RECV_CPU. Sender rate per window:"
    echo "$sent_alone_rate, $sent_sol_rate and $sent_side_rate RA/s. Fed as fast as the sender goes, a receiver"
    echo "that keeps up receives what is sent, mostly one RA per wakeup: the rates say who keeps up,"
    echo "the CPU per RA what keeping up costs."
    echo
    echo "| receiver | received RA/s | CPU per RA (µs) | dropped at the socket |"
    echo "|---|---:|---:|---:|"
    echo "$ref_alone_row"
    echo "$sol_alone_row"
    echo "$ref_side_row"
    echo "$sol_side_row"
    echo
    echo "| figure | value |"
    echo "|---|---:|"
    echo "| ratio solicd / reference, received RA/s, alone | $ratio_alone_rates |"
    echo "| ratio solicd / reference, received RA/s, side by side | $ratio_side |"
    echo "| ratio reference / solicd, CPU per RA, side by side | $cost_ratio |"
    echo
    echo "Side by side, the two share one CPU: while both are saturated the ratio of what they"
    echo "receive is that of their costs per RA."
    echo
    echo "### Against the receive limit and the tools people use"
    echo
    echo "Each alone on CPU $RECV_CPU, fed the same flood in a window of its own (sender rates:"
    echo "$sent_limit_rate, $sent_radvdump_rate and $sent_ndptool_rate RA/s): a bare blocking \`recvmsg\` loop on the"
    echo "daemon's socket set-up (the receive limit), \`radvdump\` and \`ndptool monitor -t ra\` with their"
    echo "output to a file counted afterwards, and solicd alone (above). RAs processed per second and"
    echo "CPU per RA; solicd's ratios: its rate to theirs, their CPU per RA to its own."
    echo
    echo "| receiver | RAs processed per second | CPU per RA (µs) | solicd's rate ratio | CPU ratio (theirs / solicd's) |"
    echo "|---|---:|---:|---:|---:|"
    echo "| solicd | $sol_alone_rate | $sol_alone_us | | |"
    echo "| receive limit (blocking recvmsg) | $limit_rate | $limit_us | $(ratio "$sol_alone_rate" "$limit_rate") | $(ratio "$limit_us" "$sol_alone_us") |"
    echo "| GLib reference | $(rate "$ref_alone" "$SECONDS_REF") | $ref_alone_us | $ratio_alone_rates | $(ratio "$ref_alone_us" "$sol_alone_us") |"
    echo "| radvdump | $radvdump_rate | $radvdump_us | $(ratio "$sol_alone_rate" "$radvdump_rate") | $(ratio "$radvdump_us" "$sol_alone_us") |"
    echo "| ndptool monitor -t ra | $ndptool_rate | $ndptool_us | $(ratio "$sol_alone_rate" "$ndptool_rate") | $(ratio "$ndptool_us" "$sol_alone_us") |"
    echo
    echo "### While RAs wait: what each can take"
    echo
    echo "A flood beyond what a receiver can take keeps RAs waiting on its socket. Each receiver alone"
    echo "on CPU $RECV_CPU, $DRAIN_CYCLES times: stopped while $DRAIN_FILL RAs are sent (more than its socket's queue"
    echo "holds), then left to take what waits. CPU time from the scheduler's count, of the thread"
    echo "that takes the RAs and of all threads: stopping and continuing a process makes every one of"
    echo "its threads run (solicd has the tracing library's two and the mailbox service's), which a"
    echo "flood does not. RAs per CPU-second, from the taking thread, is what a receiver can process"
    echo "with one CPU of its own while the flood lasts."
    echo
    echo "| receiver | RAs taken | per fill | CPU per RA, taking thread (ns) | all threads (ns) | RAs per CPU-second | solicd's ratio | goal |"
    echo "|---|---:|---:|---:|---:|---:|---:|---|"
    echo "| solicd | $sol_drained | $((sol_drained / DRAIN_CYCLES)) | $(per_ra_ns "$sol_drain_ns" "$sol_drained") | $(per_ra_ns "$sol_drain_all_ns" "$sol_drained") | $sol_capacity | | |"
    against "receive limit (blocking recvmsg)" "$limit_drained" "$limit_drain_ns" "$limit_drain_all_ns" 0.8
    against "GLib reference" "$ref_drained" "$ref_drain_ns" "$ref_drain_all_ns" 1.2
    against radvdump "$radvdump_drained" "$radvdump_drain_ns" "$radvdump_drain_all_ns" 3
    against "ndptool monitor -t ra" "$ndptool_drained" "$ndptool_drain_ns" "$ndptool_drain_all_ns" 3
    echo
    echo "Goals are reported, not asserted. All of this runs with LAB off, as a daemon runs without a"
    echo "tracing session; with LAB recorded every RA keeps a wakeup of its own and its traces as they"
    echo "were, which the tests check (e2e_queued_ras, e2e_lttng and the RA handler's unit tests)."
    echo
    echo "## B. Unique-prefix flood (${UNIQUE_SECONDS} s), client connected"
    echo
    echo "| figure | value | goal |"
    echo "|---|---:|---|"
    echo "| RAs sent / received by solicd | $unique_sent / $unique_rx | |"
    echo "| routers / networks / DNS servers stored | $routers / $networks / $dns | 64 / 128 / 128 |"
    echo "| updates the client printed | $updates | |"
    echo "| RSS at 10 s / at the end / highest (KiB) | $rss_10 / $rss_end / $rss_max | |"
    echo "| RSS growth after the first 10 s (KiB) | $rss_growth | <= 2048, $(verdict "$rss_growth" 2048 "<=") |"
    echo "| slowest of $show_count \`solicctl show\` during the flood (ms) | $show_max | <= 50, $(verdict "$show_max" 50 "<=") |"
    echo
    echo "## C. Idle (${IDLE_SECONDS} s after B, no traffic, no timer due)"
    echo
    echo "| figure | value | goal |"
    echo "|---|---:|---|"
    echo "| wakeups per second of the main loop's thread | $idle_rate | 0, $(verdict "$idle_rate" 0 "<=") |"
    echo "| wakeups per second of all threads (LTTng-UST's listeners included) | $idle_all_rate | |"
} >"$WORK/table.md"
cat "$WORK/table.md"
mkdir -p "$(dirname "$RESULTS")"
cp "$WORK/table.md" "$RESULTS"
echo "bench-flood: written to $RESULTS"

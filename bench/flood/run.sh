#!/usr/bin/env bash
# The flood benchmark (root). Two network namespaces joined by veth: ra_flood sends Router
# Advertisements from one end, the receivers listen on the other. All figures come from one run:
#  A. typical flood (the same RA with a prefix and two DNS servers, as fast as the link takes it)
#     for FLOOD_SECONDS, three times: into the reference alone (flood_reference: the daemon's
#     socket set-up, one recvmsg per GLib wakeup), into solicd alone, into both side by side on
#     one CPU. Received rates, CPU per RA, socket drops, and the ratios; the goal (0.8) is checked
#     on the side-by-side ratios, of received RAs and of CPU per RA (the one the rest of the
#     machine cannot tilt).
#  B. unique-prefix flood (every RA a new prefix, a new router every 100 RAs) for UNIQUE_SECONDS
#     into a fresh solicd with a `solicctl watch` client connected: store sizes, RSS growth after
#     the first 10 s, and how long `solicctl show` takes meanwhile.
#     Then, each alone in a window of the same flood: a bare blocking recvmsg loop on the same
#     socket set-up (the receive limit), radvdump and `ndptool monitor -t ra` (their output to a
#     file, counted afterwards): RAs processed per second, CPU per RA, and solicd's ratios.
#  C. idle for IDLE_SECONDS right after B (no traffic, no timer due): wakeups per second.
# The table goes to stdout and to RESULTS (default bench/results/latest.md).
# SOLICD_BUILD (default build) names the build tree; SOLICD_DAEMON another solicd to measure.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
    echo "bench-flood: needs root (network namespaces, raw and packet sockets)" >&2
    exit 77
fi
SRC=$(cd "$(dirname "$0")/../.." && pwd)
BUILD=$(cd "${SOLICD_BUILD:-$SRC/build}" && pwd)
BIN=$BUILD/bin
DAEMON=${SOLICD_DAEMON:-$BIN/solicd}
CTL=$BIN/solicctl
FLOOD=$BIN/ra_flood
REFERENCE=$BIN/flood_reference
RESULTS=${RESULTS:-$SRC/bench/results/latest.md}
FLOOD_SECONDS=${FLOOD_SECONDS:-10}
UNIQUE_SECONDS=${UNIQUE_SECONDS:-60}
IDLE_SECONDS=${IDLE_SECONDS:-30}
for program in "$DAEMON" "$CTL" "$FLOOD" "$REFERENCE"; do
    [ -x "$program" ] || { echo "bench-flood: $program is not built (make build)" >&2; exit 1; }
done
for tool in radvdump ndptool; do
    command -v "$tool" >/dev/null || { echo "bench-flood: $tool is missing (scripts/install-deps)" >&2; exit 1; }
done
for tool in ip taskset unshare; do
    command -v "$tool" >/dev/null || { echo "bench-flood: $tool is missing (scripts/install-deps)" >&2; exit 1; }
done

# Short unique suffix: interface names must stay within 15 characters.
RUN=$(printf '%x%x' $$ $((RANDOM % 256)))
WORK=$(mktemp -d /tmp/solicd-flood.XXXXXX)
NS=sfd$RUN      # the receivers' side
PEER_NS=sfr$RUN # the sender's side
IF=fd$RUN
PEER_IF=fr$RUN
export LMX_DIR=$WORK/lmx
source "$SRC/bench/untraced.sh"
LOAD_BEFORE=$(cut -d' ' -f1-3 /proc/loadavg)
DAEMON_LABEL=${SOLICD_DAEMON_LABEL:-"commit $(git -C "$SRC" describe --always --dirty 2>/dev/null || echo unknown)"}
PIDS=()

cleanup() {
    local pid
    for pid in "${PIDS[@]}"; do
        kill -KILL "$pid" 2>/dev/null || true
    done
    for pid in "${PIDS[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    ip netns del "$NS" 2>/dev/null || true
    ip netns del "$PEER_NS" 2>/dev/null || true
    rm -rf "$WORK"
}
trap cleanup EXIT

fail() {
    echo "bench-flood: $*" >&2
    local f
    for f in "$WORK"/*.out "$WORK"/*.err; do
        [ -s "$f" ] || continue
        echo "---- $f" >&2
        tail -n 20 "$f" >&2
    done
    exit 1
}

# The receivers on one CPU, the sender on another (the kernel's receive path runs in the
# sender's context on veth); on a single CPU everything shares it.
if [ "$(nproc)" -ge 2 ]; then
    SEND_CPU=0
    RECV_CPU=1
else
    SEND_CPU=0
    RECV_CPU=0
fi

# ---- The lab. The kernel's own RA handling is off on the receivers' side: a unique-prefix
# flood must not make it configure a million addresses.
for ns in "$NS" "$PEER_NS"; do
    ip netns add "$ns"
    ip -n "$ns" link set lo up
    ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.accept_ra=0 net.ipv6.conf.default.accept_ra=0 \
        net.ipv6.conf.all.router_solicitations=0 net.ipv6.conf.default.router_solicitations=0
done
ip link add "$IF" netns "$NS" type veth peer name "$PEER_IF" netns "$PEER_NS"
ip -n "$NS" link set "$IF" up
ip -n "$PEER_NS" link set "$PEER_IF" up
for _ in $(seq 1 100); do
    if ip -n "$NS" -6 addr show dev "$IF" scope link 2>/dev/null | grep -q inet6 &&
        ! ip -n "$NS" -6 addr show dev "$IF" 2>/dev/null | grep -q tentative; then
        break
    fi
    sleep 0.1
done

# ---- Helpers

# cpu_ticks PID: user + system time in clock ticks.
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
TICKS=$(getconf CLK_TCK)

# socket_drops PID: datagrams the kernel dropped at the process's raw IPv6 sockets.
socket_drops() {
    local inodes
    inodes=$(find "/proc/$1/fd" -lname 'socket:*' -printf '%l\n' 2>/dev/null | tr -dc '0-9\n' | paste -sd'|')
    [ -n "$inodes" ] || { echo 0; return; }
    ip netns exec "$NS" awk -v re="^($inodes)\$" 'NR > 1 && $10 ~ re {d += $13} END {print d + 0}' /proc/net/raw6
}

# rss_kib PID
rss_kib() { awk '/^VmRSS:/ {print $2}' "/proc/$1/status"; }

# wakeups STATUS_FILES...: context switches (voluntary and not) so far.
wakeups() { cat "$@" | awk '/ctxt_switches/ {n += $2} END {print n + 0}'; }

# show MBOX FILE: the cache dump into FILE; the time it took in milliseconds on stdout.
show() {
    local start end
    start=$(date +%s%N)
    "$CTL" show "$1" >"$2" || fail "solicctl show $1 failed"
    end=$(date +%s%N)
    echo $(((end - start) / 1000000))
}

# counter FILE NAME: one counter of a cache dump.
counter() { sed -nE "s/.*[{ ]$2: ([0-9]+).*/\1/p" "$1" | head -n1; }

# store_sizes FILE: "routers networks dns" entries of a cache dump.
store_sizes() {
    awk '/^Routers:/ {s = "r"} /^Networks:/ {s = "n"} /^DNS Servers:/ {s = "d"} /^Counters:/ {s = ""}
         {c[s] += gsub(/\{config:/, "&")} END {print c["r"] + 0, c["n"] + 0, c["d"] + 0}' "$1"
}

# start_daemon NAME: solicd on the receivers' side with mailbox NAME; waits until it answers.
start_daemon() {
    "${UNTRACED[@]}" taskset -c "$RECV_CPU" "$DAEMON" -n "$NS" -i "$IF" -s "$1" -d "client-$1" \
        >"$WORK/$1.out" 2>"$WORK/$1.err" &
    PIDS+=($!)
    DAEMON_PID=$!
    for _ in $(seq 1 100); do
        "$CTL" show "$1" >/dev/null 2>&1 && return 0
        kill -0 "$DAEMON_PID" 2>/dev/null || fail "solicd $1 ended at start"
        sleep 0.1
    done
    fail "solicd $1 does not answer"
}

# flood ARGS...: ra_flood on the sender's side, pinned; its "sent N seconds T" on stdout.
flood() { ip netns exec "$PEER_NS" taskset -c "$SEND_CPU" "$FLOOD" -i "$PEER_IF" "$@"; }


# ---- A. Typical flood: the reference alone, solicd alone, then both side by side

# start_reference: the reference on the receivers' CPU; returns once its socket is bound.
# start_reference [--blocking]: with --blocking, the bare blocking recvmsg loop (the receive limit).
start_reference() {
    : >"$WORK/reference.out"
    "${UNTRACED[@]}" taskset -c "$RECV_CPU" "$REFERENCE" "$@" "$NS" "$IF" >"$WORK/reference.out" \
        2>"$WORK/reference.err" &
    PIDS+=($!)
    REF_PID=$!
    for _ in $(seq 1 100); do
        grep -qx ready "$WORK/reference.out" && return 0
        kill -0 "$REF_PID" 2>/dev/null || fail "the reference ended at start"
        sleep 0.1
    done
    fail "the reference did not get ready"
}

# stop_reference: ends it; the datagrams it received on stdout.
stop_reference() {
    kill -TERM "$REF_PID"
    wait "$REF_PID" || true
    local received
    received=$(sed -nE 's/^received ([0-9]+)$/\1/p' "$WORK/reference.out")
    [ -n "$received" ] || fail "the reference reported nothing"
    echo "$received"
}

rate() { awk -v n="$1" -v s="$2" 'BEGIN {printf "%.0f", n / s}'; }
per_ra_us() { awk -v t="$1" -v n="$2" -v hz="$TICKS" 'BEGIN {if (n > 0) printf "%.2f", t / hz / n * 1e6; else print "-"}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {if (b > 0) printf "%.2f", a / b; else print "-"}'; }

# typical_flood: FLOOD_SECONDS of the typical RA as fast as the link takes it; sets SENT and
# SECONDS_SENT, with a moment afterwards for the receivers to drain their queues.
typical_flood() {
    local _a _b
    read -r _a SENT _b SECONDS_SENT < <(flood --mode typical --seconds "$FLOOD_SECONDS") || true
    [ -n "${SECONDS_SENT:-}" ] || fail "the typical flood did not run"
    sleep 0.5
}

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
ref_alone=$(stop_reference)
ref_alone_row=$(row "reference alone" "$ref_alone" $((c1 - c0)) $((d1 - d0)))
ref_alone_us=$(per_ra_us $((c1 - c0)) "$ref_alone")
sent_alone_rate=$(rate "$SENT" "$SECONDS_SENT")
ref_alone_share=$(ratio "$ref_alone" "$SENT")
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
sol_alone_share=$(ratio "$sol_alone" "$SENT")
ratio_alone=$(ratio "$sol_alone_share" "$ref_alone_share")

# A3. Both side by side on the one CPU: each gets the share of it that its cost per RA allows.
start_reference
show "$MBOX_A" "$WORK/before.txt" >/dev/null
read -r c0 d0 < <(measure "$sol_pid")
read -r r0 e0 < <(measure "$REF_PID")
typical_flood
read -r c1 d1 < <(measure "$sol_pid")
read -r r1 e1 < <(measure "$REF_PID")
show "$MBOX_A" "$WORK/after.txt" >/dev/null
ref_side=$(stop_reference)
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
limit_alone=$(stop_reference)
limit_rate=$(rate "$limit_alone" "$SECONDS_SENT")
limit_us=$(per_ra_us $((c1 - c0)) "$limit_alone")
sent_limit_rate=$(rate "$SENT" "$SECONDS_SENT")

# peer NAME PATTERN COMMAND...: the tool in the receivers' namespace, pinned, its output to a file
# counted afterwards (PATTERN: the line each RA it processed prints). Sets PEER_RATE, PEER_US.
peer() {
    local name=$1 pattern=$2 pid p0 p1 count
    shift 2
    ip netns exec "$NS" taskset -c "$RECV_CPU" "$@" >"$WORK/$name.txt" 2>"$WORK/$name.err" &
    pid=$!
    PIDS+=("$pid")
    sleep 1
    kill -0 "$pid" 2>/dev/null || fail "$name ended at start: $(cat "$WORK/$name.err")"
    p0=$(cpu_ticks "$pid")
    typical_flood
    p1=$(cpu_ticks "$pid")
    kill -TERM "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    count=$(grep -c -- "$pattern" "$WORK/$name.txt" || true)
    rm -f "$WORK/$name.txt"
    PEER_RATE=$(rate "$count" "$SECONDS_SENT")
    PEER_US=$(per_ra_us $((p1 - p0)) "$count")
    PEER_SENT=$(rate "$SENT" "$SECONDS_SENT")
}
peer radvdump '^# based on Router Advertisement from' radvdump
radvdump_rate=$PEER_RATE radvdump_us=$PEER_US sent_radvdump_rate=$PEER_SENT
peer ndptool '^  Type: RA$' ndptool -i "$IF" monitor -t ra
ndptool_rate=$PEER_RATE ndptool_us=$PEER_US sent_ndptool_rate=$PEER_SENT
sol_alone_rate=$(rate "$sol_alone" "$SECONDS_ALONE")
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
    echo "$sent_alone_rate, $sent_sol_rate and $sent_side_rate RA/s."
    echo
    echo "| receiver | received RA/s | CPU per RA (µs) | dropped at the socket |"
    echo "|---|---:|---:|---:|"
    echo "$ref_alone_row"
    echo "$sol_alone_row"
    echo "$ref_side_row"
    echo "$sol_side_row"
    echo
    echo "| figure | value | goal |"
    echo "|---|---:|---|"
    echo "| ratio solicd / reference, received RA/s, side by side | $ratio_side | >= 0.8, $(verdict "$ratio_side" 0.8 ">=") |"
    echo "| ratio reference / solicd, CPU per RA, side by side | $cost_ratio | >= 0.8, $(verdict "$cost_ratio" 0.8 ">=") |"
    echo "| share of the flood received alone: reference, solicd | $ref_alone_share, $sol_alone_share | |"
    echo "| ratio of those shares, solicd / reference | $ratio_alone | |"
    echo
    echo "Side by side, the two see the same datagrams at the same time on one CPU. While both"
    echo "are saturated they get equal shares of it and the ratio of what they receive is that of"
    echo "their costs per RA; when the sender or the rest of the machine leaves one of them idle,"
    echo "the received ratio drifts, the cost ratio does not: it is the figure to trust. Alone, each"
    echo "has a CPU of its own and what it gets depends on the sender's rate in its window, hence"
    echo "shares of the flood, not rates."
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
    echo "| GLib reference | $(rate "$ref_alone" "$SECONDS_REF") | $ref_alone_us | $(ratio "$sol_alone_share" "$ref_alone_share") (of the shares of the flood) | $(ratio "$ref_alone_us" "$sol_alone_us") |"
    echo "| radvdump | $radvdump_rate | $radvdump_us | $(ratio "$sol_alone_rate" "$radvdump_rate") | $(ratio "$radvdump_us" "$sol_alone_us") |"
    echo "| ndptool monitor -t ra | $ndptool_rate | $ndptool_us | $(ratio "$sol_alone_rate" "$ndptool_rate") | $(ratio "$ndptool_us" "$sol_alone_us") |"
    echo
    echo "Goals (reported, not asserted): solicd at least 3 times each peer's rate, at least 0.8 of the"
    echo "receive limit."
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
    echo "| slowest of $show_count \`solicctl show\` during the flood (ms) | $show_max | < 1000, $(verdict "$show_max" 999 "<=") |"
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

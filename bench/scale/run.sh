#!/usr/bin/env bash
# The scale benchmark (root): SCALE_DAEMONS solicd processes (default 100), each in a network
# namespace of its own on one end of a veth pair, all idle. Once every one answers and its start-up
# solicitations are over, for SCALE_SECONDS (default 20): the memory they share out (PSS, in
# total and per daemon), the CPU time they use and how often their threads wake up. The table
# goes to stdout and to RESULTS (default bench/results/scale.md).
# SOLICD_BUILD (default build) names the build tree.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
    echo "bench-scale: needs root (network namespaces)" >&2
    exit 77
fi
SRC=$(cd "$(dirname "$0")/../.." && pwd)
BUILD=$(cd "${SOLICD_BUILD:-$SRC/build}" && pwd)
DAEMON=$BUILD/bin/solicd
CTL=$BUILD/bin/solicctl
RESULTS=${RESULTS:-$SRC/bench/results/scale.md}
DAEMONS=${SCALE_DAEMONS:-100}
SECONDS_IDLE=${SCALE_SECONDS:-20}
# The first solicitation waits up to a second, two more follow 4 s apart, and the cycle's timer
# ends 4 s after the last: quiet after 13 s.
SETTLE=${SCALE_SETTLE:-15}
for program in "$DAEMON" "$CTL"; do
    [ -x "$program" ] || { echo "bench-scale: $program is not built (make build)" >&2; exit 1; }
done
for tool in ip unshare; do
    command -v "$tool" >/dev/null || { echo "bench-scale: $tool is missing (scripts/install-deps)" >&2; exit 1; }
done

RUN=$(printf '%x%x' $$ $((RANDOM % 256)))
WORK=$(mktemp -d /tmp/solicd-scale.XXXXXX)
export LMX_DIR=$WORK/lmx
mkdir -p "$LMX_DIR"
source "$SRC/bench/untraced.sh"
LOAD_BEFORE=$(cut -d' ' -f1-3 /proc/loadavg)
LABEL="commit $(git -C "$SRC" describe --always --dirty 2>/dev/null || echo unknown)"
PIDS=()
NAMESPACES=()

cleanup() {
    local pid ns
    for pid in "${PIDS[@]}"; do
        kill -TERM "$pid" 2>/dev/null || true
    done
    for pid in "${PIDS[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    for ns in "${NAMESPACES[@]}"; do
        ip netns del "$ns" 2>/dev/null || true
    done
    rm -rf "$WORK"
}
trap cleanup EXIT

fail() {
    echo "bench-scale: $*" >&2
    exit 1
}

# ---- The daemons, one namespace and dummy interface each
for i in $(seq 1 "$DAEMONS"); do
    ns=ssc$RUN-$i
    ip netns add "$ns"
    NAMESPACES+=("$ns")
    ip -n "$ns" link set lo up
    ip netns exec "$ns" sysctl -qw net.ipv6.conf.default.accept_dad=0
    # A veth pair inside the namespace: an interface with a link-local address and no one on
    # the other end but its twin (dummy interfaces need a module a container may lack).
    ip -n "$ns" link add d0 type veth peer name d1
    ip -n "$ns" link set d1 up
    ip -n "$ns" link set d0 up
    "${UNTRACED[@]}" "$DAEMON" -n "$ns" -i d0 -s "scale-$i" -d "client-$i" >"$WORK/$i.out" 2>"$WORK/$i.err" &
    PIDS+=($!)
done
for i in $(seq 1 "$DAEMONS"); do
    for _ in $(seq 1 200); do
        "$CTL" show "scale-$i" --timeout 1 >/dev/null 2>&1 && continue 2
        kill -0 "${PIDS[$((i - 1))]}" 2>/dev/null || fail "solicd $i ended at start: $(cat "$WORK/$i.err")"
        sleep 0.1
    done
    fail "solicd $i does not answer"
done
sleep "$SETTLE"

# ---- Idle: memory, CPU and wakeups over SECONDS_IDLE
pss_kib() { awk '/^Pss:/ {print $2}' "/proc/$1/smaps_rollup"; }
rss_kib() { awk '/^VmRSS:/ {print $2}' "/proc/$1/status"; }
switches() { cat "$@" 2>/dev/null | awk '/ctxt_switches/ {n += $2} END {print n + 0}'; }
ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }

declare -A main_before all_before cpu_before
for pid in "${PIDS[@]}"; do
    main_before[$pid]=$(switches "/proc/$pid/status")
    all_before[$pid]=$(switches /proc/"$pid"/task/*/status)
    cpu_before[$pid]=$(ticks "$pid")
done
sleep "$SECONDS_IDLE"
pss_total=0 pss_max=0 rss_total=0 main_wakeups=0 all_wakeups=0 cpu_ticks=0 busiest=0
for pid in "${PIDS[@]}"; do
    kill -0 "$pid" 2>/dev/null || fail "a solicd ended while idle"
    pss=$(pss_kib "$pid")
    pss_total=$((pss_total + pss))
    [ "$pss" -le "$pss_max" ] || pss_max=$pss
    rss_total=$((rss_total + $(rss_kib "$pid")))
    main=$(($(switches "/proc/$pid/status") - main_before[$pid]))
    main_wakeups=$((main_wakeups + main))
    [ "$main" -le "$busiest" ] || busiest=$main
    all_wakeups=$((all_wakeups + $(switches /proc/"$pid"/task/*/status) - all_before[$pid]))
    cpu_ticks=$((cpu_ticks + $(ticks "$pid") - cpu_before[$pid]))
done
TICKS=$(getconf CLK_TCK)

div() { awk -v a="$1" -v b="$2" -v f="$3" 'BEGIN {printf f, a / b}'; }
verdict() { awk -v v="$1" -v goal="$2" 'BEGIN { print (v <= goal) ? "met" : "NOT met" }'; }
pss_each=$(div "$pss_total" "$DAEMONS" "%.0f")
{
    echo "# solicd at scale: $DAEMONS idle daemons"
    echo
    echo "$LABEL; $(nproc) CPUs ($(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')); load before the run: $LOAD_BEFORE."
    echo "Each daemon in a network namespace of its own on one end of a veth pair, no router on the link,"
    echo "no client connected, no tracing session; measured for $SECONDS_IDLE s once every daemon"
    echo "answered and its start-up solicitations were over ($SETTLE s)."
    echo
    echo "| measure | value | goal |"
    echo "|---|---|---|"
    echo "| PSS of all daemons (KiB) | $pss_total | |"
    echo "| PSS per daemon, mean (KiB) | $pss_each | < 1024, $(verdict "$pss_each" 1023) |"
    echo "| PSS per daemon, largest (KiB) | $pss_max | |"
    echo "| RSS of all daemons (KiB; shared pages counted in each) | $rss_total | |"
    echo "| CPU time of all daemons over $SECONDS_IDLE s (ms) | $(div $((cpu_ticks * 1000)) "$TICKS" "%.0f") | |"
    echo "| context switches of the main loops' threads, all daemons | $main_wakeups | 0, $(verdict "$main_wakeups" 0) |"
    echo "| context switches of one main loop's thread, the most | $busiest | |"
    echo "| context switches of all threads (LTTng-UST's listeners, the mailbox service's) | $all_wakeups | |"
} | tee "$RESULTS"

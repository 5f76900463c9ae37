# The lab of the flood benchmarks (sourced; BENCH names the caller in its messages): two network
# namespaces joined by veth, the receivers' side with the kernel's own RA handling off, the
# programs to measure, and the helpers that start, feed and measure them. Everything it made goes
# when the caller exits.
if [ "$(id -u)" -ne 0 ]; then
    echo "$BENCH: needs root (network namespaces, raw and packet sockets)" >&2
    exit 77
fi
SRC=$(cd "$(dirname "$0")/../.." && pwd)
BUILD=$(cd "${SOLICD_BUILD:-$SRC/build}" && pwd)
BIN=$BUILD/bin
DAEMON=${SOLICD_DAEMON:-$BIN/solicd}
CTL=$BIN/solicctl
FLOOD=$BIN/ra_flood
REFERENCE=$BIN/flood_reference
for program in "$DAEMON" "$CTL" "$FLOOD" "$REFERENCE"; do
    [ -x "$program" ] || { echo "$BENCH: $program is not built (make build)" >&2; exit 1; }
done
for tool in ip taskset unshare; do
    command -v "$tool" >/dev/null || { echo "$BENCH: $tool is missing (scripts/install-deps)" >&2; exit 1; }
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
    echo "$BENCH: $*" >&2
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

# stop_reference: ends it; the datagrams it received in REF_RECEIVED. (Not in a command
# substitution: a subshell cannot wait for its parent's children, and would read the count
# before the reference has written it.)
stop_reference() {
    kill -TERM "$REF_PID"
    wait "$REF_PID" || true
    REF_RECEIVED=$(sed -nE 's/^received ([0-9]+)$/\1/p' "$WORK/reference.out")
    [ -n "$REF_RECEIVED" ] || fail "the reference reported nothing"
}

rate() { awk -v n="$1" -v s="$2" 'BEGIN {printf "%.0f", n / s}'; }
per_ra_us() { awk -v t="$1" -v n="$2" -v hz="$TICKS" 'BEGIN {if (n > 0) printf "%.2f", t / hz / n * 1e6; else print "-"}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {if (b > 0) printf "%.2f", a / b; else print "-"}'; }

# cpu_ns PID [THREADS]: CPU time so far, in nanoseconds, of its first thread (the one that takes
# the RAs in every receiver measured here), or with THREADS=all of all its threads.
cpu_ns() {
    local stats=/proc/$1/task/$1/schedstat
    [ "${2:-}" != all ] || stats=$(echo /proc/"$1"/task/*/schedstat)
    # shellcheck disable=SC2086 # a list of files when THREADS=all
    cat $stats | awk '{n += $1} END {printf "%.0f\n", n}'
}

# drain PID: DRAIN_CYCLES times, while PID is stopped, the typical RA DRAIN_FILL times, more than
# its socket's queue holds; then PID drains the full queue. Fed as fast as the sender goes, a
# receiver that keeps up gets one RA at a time; a flood beyond what it can take keeps RAs
# waiting, and this is that: what it costs per RA while RAs wait. Sets DRAIN_NS, the CPU time the
# thread that takes the RAs used meanwhile, and DRAIN_ALL_NS, that of all its threads: stopping
# and continuing a process makes each of its threads run, which a flood does not.
DRAIN_CYCLES=${DRAIN_CYCLES:-200}
DRAIN_FILL=${DRAIN_FILL:-2000}
drain() {
    local pid=$1 before before_all i
    before=$(cpu_ns "$pid")
    before_all=$(cpu_ns "$pid" all)
    for ((i = 0; i < DRAIN_CYCLES; i++)); do
        kill -STOP "$pid"
        flood --mode typical --count "$DRAIN_FILL" >/dev/null || fail "the flood did not run"
        kill -CONT "$pid"
        sleep 0.05
    done
    DRAIN_NS=$(($(cpu_ns "$pid") - before))
    DRAIN_ALL_NS=$(($(cpu_ns "$pid" all) - before_all))
}

# typical_flood: FLOOD_SECONDS of the typical RA as fast as the link takes it; sets SENT and
# SECONDS_SENT, with a moment afterwards for the receivers to drain their queues.
typical_flood() {
    local _a _b
    read -r _a SENT _b SECONDS_SENT < <(flood --mode typical --seconds "$FLOOD_SECONDS") || true
    [ -n "${SECONDS_SENT:-}" ] || fail "the typical flood did not run"
    sleep 0.5
}


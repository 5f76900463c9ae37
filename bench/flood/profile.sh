#!/usr/bin/env bash
# Where solicd's time goes while RAs wait, as under an RA flood beyond what it can take (root).
# solicd alone on the receivers' CPU drains its full socket queue again and again (drain, lab.sh):
# once left alone for its CPU per RA, once with `perf stat` counting its system calls, once with
# `perf record` sampling it with call chains. Everything is given per RA: the CPU, the system
# calls, the time of each part of the process (kernel, GLib, the C library, solicd, ...), of each
# function on its own (self) and with what it calls (inclusive). The table goes to stdout and to
# RESULTS (default bench/results/profile.md). SOLICD_DAEMON measures another solicd and
# SOLICD_DAEMON_LABEL says where it comes from, e.g. one built from an earlier commit.
set -euo pipefail

BENCH=bench-profile
# Enough rounds for some thousands of samples.
DRAIN_CYCLES=${DRAIN_CYCLES:-300}
source "$(dirname "$0")/lab.sh"
RESULTS=${RESULTS:-$SRC/bench/results/profile.md}
# Functions below this share of the samples are left out of the tables.
PERCENT_LIMIT=${PERCENT_LIMIT:-1}
# The inclusive table lists the functions that take most, this many.
CHILDREN_ROWS=${CHILDREN_ROWS:-40}
command -v perf >/dev/null || { echo "$BENCH: perf is missing (scripts/install-deps)" >&2; exit 1; }

MBOX=profile-$RUN
start_daemon "$MBOX"
sol_pid=$DAEMON_PID
# Once the solicitation cycle is over (three RSs, 4 s apart, none answered), as in bench-flood.
sleep 13

# window [PERF COMMAND -o FILE ARGS...]: drains solicd's full queue DRAIN_CYCLES times (drain,
# lab.sh), with perf attached when given, writing FILE in the scratch directory; sets RAS (RAs taken meanwhile), CPU_NS (CPU per RA) and SWITCHES
# (context switches per RA).
window() {
    local perf_pid="" w0 w1
    show "$MBOX" "$WORK/before.txt" >/dev/null
    if [ $# -gt 0 ]; then
        (cd "$WORK" && exec perf "$@" -t "$sol_pid") 2>"$WORK/perf.err" &
        perf_pid=$!
        sleep 1
    fi
    w0=$(wakeups "/proc/$sol_pid/task/$sol_pid/status")
    drain "$sol_pid"
    w1=$(wakeups "/proc/$sol_pid/task/$sol_pid/status")
    if [ -n "$perf_pid" ]; then
        # Ended by SIGINT, as on a terminal: its status says so, what it wrote says how it went.
        kill -INT "$perf_pid"
        wait "$perf_pid" || true
        [ -s "$WORK/$2" ] || [ -s "$WORK/$3" ] || fail "perf $1: $(cat "$WORK/perf.err")"
    fi
    show "$MBOX" "$WORK/after.txt" >/dev/null
    RAS=$(($(counter "$WORK/after.txt" rxRa) - $(counter "$WORK/before.txt" rxRa)))
    [ "$RAS" -gt 0 ] || fail "solicd received nothing"
    CPU_NS=$(awk -v t="$DRAIN_NS" -v n="$RAS" 'BEGIN {printf "%.0f", t / n}')
    SWITCHES=$(awk -v n=$((w1 - w0)) -v r="$RAS" 'BEGIN {printf "%.2f", n / r}')
}

# Three windows: one left alone for the CPU per RA, one counting system calls, one sampling; the
# syscall tracepoints perf stat needs would otherwise show up in the samples, and the sampling in
# the CPU.
window
ras=$RAS cpu_ns=$CPU_NS switches=$SWITCHES
window stat -o stat.csv -x, \
    -e raw_syscalls:sys_enter,syscalls:sys_enter_recvmsg,syscalls:sys_enter_recvmmsg \
    -e syscalls:sys_enter_poll,syscalls:sys_enter_ppoll
stat_ras=$RAS
window record -o perf.data -q -F 9999 --call-graph dwarf,8192
sampled_ras=$RAS
kill -TERM "$sol_pid"
wait "$sol_pid" || true

# stat EVENT: the count perf stat gave for it, 0 when the kernel does not have it.
stat() { awk -F, -v e="$1" '$3 == e {print ($1 ~ /^[0-9]+$/) ? $1 : 0; f = 1} END {if (!f) print 0}' "$WORK/stat.csv"; }
per_ra() { awk -v n="$1" -v r="$stat_ras" 'BEGIN {printf "%.2f", n / r}'; }

# report ARGS...: perf report's lines "PERCENT COLUMNS..." as "| ns per RA | share | columns |";
# with --children the first share is the inclusive one. ROWS, when set, keeps that many.
report() {
    perf report -i "$WORK/perf.data" --stdio --percent-limit "$PERCENT_LIMIT" -g none "$@" 2>/dev/null |
        awk -v ns="$cpu_ns" -v rows="${ROWS:-0}" '/^ *[0-9.]+%/ && (rows == 0 || n++ < rows) {
            p = $1; sub(/%/, "", p)
            $1 = ""
            if ($2 ~ /^[0-9.]+%$/) $2 = ""  # the self share beside the inclusive one
            sub(/^ +/, "")
            gsub(/\|/, "\\|")
            printf "| %.0f | %.1f %% | %s |\n", p / 100 * ns, p, $0 }'
}

{
    echo "# Where the time goes: solicd while RAs wait"
    echo
    echo "One run of \`make bench-profile\` ($(date -u '+%Y-%m-%d %H:%M UTC'), $(uname -r)," \
        "$(nproc) CPUs, load average before the run: $LOAD_BEFORE)."
    echo "Daemon: \`$(basename "$DAEMON")\` from $DAEMON_LABEL, alone on CPU $RECV_CPU, no LTTng session."
    echo "While RAs wait, as under a flood beyond what it can take: $DRAIN_CYCLES times, stopped while the"
    echo "sender on CPU $SEND_CPU sends $DRAIN_FILL typical RAs (more than its socket's queue holds), then"
    echo "left to take what waits."
    echo
    echo "| per RA | value |"
    echo "|---|---:|"
    echo "| CPU (ns) | $cpu_ns |"
    echo "| system calls | $(per_ra "$(stat raw_syscalls:sys_enter)") |"
    echo "| of them recvmsg | $(per_ra "$(stat syscalls:sys_enter_recvmsg)") |"
    echo "| of them recvmmsg | $(per_ra "$(stat syscalls:sys_enter_recvmmsg)") |"
    echo "| of them poll and ppoll | $(per_ra $(($(stat syscalls:sys_enter_poll) + $(stat syscalls:sys_enter_ppoll)))) |"
    echo "| context switches | $switches |"
    echo
    echo "Everything is of the thread that takes the RAs (stopping and continuing the process makes its"
    echo "other threads run, which a flood does not). CPU (the scheduler's count) and context switches"
    echo "from a round left alone ($ras RAs), system calls counted by \`perf stat\` in a second ($stat_ras"
    echo "RAs), samples of \`perf record -F 9999 --call-graph dwarf\` in a third ($sampled_ras RAs); the CPU"
    echo "per RA is shared out by the samples. Rows below $PERCENT_LIMIT % of the samples are left out."
    echo
    echo "## By part of the process"
    echo
    echo "| ns per RA | share | part |"
    echo "|---:|---:|---|"
    report --no-children --sort dso
    echo
    echo "## By function, its own time"
    echo
    echo "| ns per RA | share | part and function |"
    echo "|---:|---:|---|"
    report --no-children --sort dso,sym
    echo
    echo "## By function, with what it calls"
    echo
    echo "| ns per RA | share | function |"
    echo "|---:|---:|---|"
    ROWS=$CHILDREN_ROWS report --children --sort sym
} >"$WORK/table.md"
cat "$WORK/table.md"
mkdir -p "$(dirname "$RESULTS")"
cp "$WORK/table.md" "$RESULTS"
echo "$BENCH: written to $RESULTS"

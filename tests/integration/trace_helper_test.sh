#!/usr/bin/env bash
# solicd-trace shows emitted events live, one line each, and on Ctrl-C destroys its session:
# first starting and then stopping the LTTng daemons itself, then using daemons that already run
# and leaving them running, with --events narrowing what it shows.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root to run LTTng session and relay daemons in private namespaces"
    exit 77
fi
for tool in lttng lttng-sessiond lttng-relayd babeltrace2 unshare ip; do
    command -v "$tool" >/dev/null || { echo "FAIL: $tool is missing; run scripts/install-deps"; exit 1; }
done
: "${SOLICD_BUILD:?}" "${SOLICD_SRC:?}"

# Private /run/lttng and /dev/shm (tracing_lib.sh): daemons of other tests or users on this
# machine can neither serve us nor be stopped by us. A network of our own: the relay daemon's
# ports are ours.
source "$(dirname "$0")/tracing_lib.sh"
if [ -z "${SOLICD_TRACE_TEST_NET:-}" ]; then
    exec unshare --net env SOLICD_TRACE_TEST_NET=1 bash "$0" "$@"
fi
ip link set lo up

helper="$SOLICD_SRC/scripts/solicd-trace"
emitter="$SOLICD_BUILD/bin/trace_emitter"
source_file="$SOLICD_SRC/tests/integration/trace_emitter.cpp"
[ -x "$emitter" ] || { echo "FAIL: $emitter not built"; exit 1; }

work=$(mktemp -d /tmp/solicd-trace-test.XXXXXX)
daemon_pids=()
helper_pid=""
cleanup() {
    set +e
    [ -n "$helper_pid" ] && kill -KILL -- -"$helper_pid" 2>/dev/null
    # Also what a failing helper started and left behind.
    mapfile -t -O "${#daemon_pids[@]}" daemon_pids < <(
        sed -n 's/.*started lttng-[a-z]* (pid \([0-9]*\)).*/\1/p' "$work"/*.err 2>/dev/null)
    for pid in "${daemon_pids[@]}"; do kill "$pid" 2>/dev/null; done
    for pid in "${daemon_pids[@]}"; do timeout 10 tail --pid="$pid" -s 0.1 -f /dev/null; done
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*"
    for f in "$work"/*.out "$work"/*.err; do
        [ -f "$f" ] && { echo "--- $(basename "$f"):"; cat "$f"; }
    done
    exit 1
}

# Waits up to $1 seconds until "${@:2}" succeeds.
wait_until() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        [ $SECONDS -lt $deadline ] || return 1
        sleep 0.1
    done
}

# The helper's line for one emitted event, as a regular expression.
line_for() {
    local event=$1 category=$2 message=$3 line
    line=$(grep -n "SOL_TRACE($event," "$source_file" | cut -d: -f1)
    echo "^[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3} $event $category trace_emitter\.cpp:$line $message\$"
}
declare -A expected=(
    [INFO]=$(line_for INFO GENERAL 'init\(\): \[solcid\.it-eth0\] Solicd initialization started')
    [ERROR]=$(line_for ERROR ADDR_IPV6 'orderTimeout\(\): \[solcid\.it-eth0\] error 42 of emitter')
    [EXCEPTION]=$(line_for EXCEPTION GENERAL 'receive\(\): \[solcid\.it-eth0\] exception text')
    [LAB]=$(line_for LAB ADDR_IPV6 'addFdEvent\(\): \[solcid\.it-eth0\] lab 7')
)

# Runs the helper as run $1 with the options "${@:2}", emits, and waits for the LAB line, the
# last one emitted. Sets helper_pid and session.
watch_emitter() {
    local run=$1
    shift
    # Job control gives the helper its own process group, as a terminal would, so that the
    # test's Ctrl-C reaches that whole group and nothing else. Other programs of the provider
    # may run; show only the emitter.
    set -m
    "$helper" --filter '$ctx.procname == "trace_emitter"' "$@" >"$work/$run.out" 2>"$work/$run.err" &
    helper_pid=$!
    set +m
    wait_until 20 grep -qs 'Ctrl-C to stop' "$work/$run.err" || fail "$run: the helper did not start"
    session=$(sed -n 's/.*showing session \([^ ]*\) .*/\1/p' "$work/$run.err")
    LTTNG_UST_REGISTER_TIMEOUT=20000 "$emitter"
    wait_until 15 grep -Eq "${expected[LAB]}" "$work/$run.out" || fail "$run: no LAB line within 15 s"
}

# Ctrl-C, then the helper must be gone within 20 s with status 0.
interrupt_helper() {
    local run=$1 status=0
    kill -INT -- -"$helper_pid"
    wait_until 20 bash -c "! kill -0 $helper_pid 2>/dev/null" || fail "$run: the helper ignores Ctrl-C"
    wait "$helper_pid" || status=$?
    helper_pid=""
    [ "$status" -eq 0 ] || fail "$run: the helper exited with $status after Ctrl-C"
}

session_listed() {
    local sessions
    sessions=$(lttng list 2>/dev/null) || return 1
    grep -qF " $1 " <<<"$sessions"
}

# Run 1: no daemon runs; the helper starts both and stops both.
watch_emitter all
for event in INFO ERROR EXCEPTION LAB; do
    grep -Eq "${expected[$event]}" "$work/all.out" || fail "all: no line matching ${expected[$event]}"
done
[ "$(wc -l <"$work/all.out")" -eq 4 ] || fail "all: expected exactly 4 lines"
session_listed "$session" || fail "all: session $session is not listed while the helper runs"
started=$(sed -n 's/.*started lttng-\(sessiond\|relayd\) (pid \([0-9]*\)).*/\2/p' "$work/all.err")
[ "$(wc -w <<<"$started")" -eq 2 ] || fail "all: the helper did not say it started both daemons"
interrupt_helper all
for pid in $started; do
    grep -q "stopped lttng-.* (pid $pid)" "$work/all.err" || fail "all: daemon $pid was not reported stopped"
    ! kill -0 "$pid" 2>/dev/null || fail "all: daemon $pid still runs after the helper ended"
done
! lttng --no-sessiond list >/dev/null 2>&1 || fail "all: a session daemon is left behind"

# Run 2: both daemons run already; the helper uses them, shows only the events asked for, and
# leaves the daemons running with its session destroyed.
setsid lttng-sessiond --no-kernel >"$work/sessiond.log" 2>&1 </dev/null &
daemon_pids+=($!)
setsid lttng-relayd --output="$work/relayd" >"$work/relayd.log" 2>&1 </dev/null &
daemon_pids+=($!)
wait_until 10 lttng --no-sessiond list >/dev/null 2>&1 || fail "own lttng-sessiond did not start"
wait_until 10 babeltrace2 --input-format=lttng-live net://localhost >/dev/null 2>&1 ||
    fail "own lttng-relayd did not start"
watch_emitter some --events INFO,LAB
! grep -q 'started lttng-' "$work/some.err" || fail "some: the helper started a daemon although both run"
grep -Eq "${expected[INFO]}" "$work/some.out" || fail "some: no INFO line"
[ "$(wc -l <"$work/some.out")" -eq 2 ] || fail "some: expected only the INFO and LAB lines"
session_listed "$session" || fail "some: session $session is not listed while the helper runs"
interrupt_helper some
! session_listed "$session" || fail "some: session $session outlives the helper"
for pid in "${daemon_pids[@]}"; do
    kill -0 "$pid" 2>/dev/null || fail "some: the helper stopped daemon $pid it did not start"
done
! grep -q 'stopped lttng-' "$work/some.err" || fail "some: the helper reports stopping a daemon"

echo "PASS: solicd-trace showed the events live and cleaned up, with and without running daemons"

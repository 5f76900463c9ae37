#!/usr/bin/env bash
# The real daemon from outside: --help, a bad command line, then, running in a namespace on a veth,
# SIGHUP and SIGQUIT traced and ignored, SIGPIPE ignored, SIGTERM ending it with status 0 after the
# descriptor sources are traced as removed. Traces are read from a real LTTng session.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root for network namespaces, raw sockets and an LTTng session"
    exit 77
fi
for tool in ip lttng lttng-sessiond babeltrace2; do
    command -v "$tool" >/dev/null || { echo "FAIL: $tool is missing; run scripts/install-deps"; exit 1; }
done
source "$(dirname "$0")/tracing_lib.sh"

DAEMON=${SOLICD_BUILD:?SOLICD_BUILD not set}/bin/solicd
[ -x "$DAEMON" ] || { echo "FAIL: $DAEMON not built"; exit 1; }

# Short unique suffix: interface names must stay within 15 characters.
RUN=$(printf '%x%x' $$ $((RANDOM % 256)))
WORK=$(mktemp -d /tmp/solicd-daemon.XXXXXX)
NS=sdl$RUN
IF=dl$RUN
PEER=dp$RUN
MBOX=solicd-$RUN
SESSION=solicd-daemon-$RUN
TRACES=$WORK/traces.txt
daemon_pid=""

cleanup() {
    if [ -n "$daemon_pid" ]; then
        kill -KILL "$daemon_pid" 2>/dev/null || true
        wait "$daemon_pid" 2>/dev/null || true
    fi
    lttng destroy "$SESSION" >/dev/null 2>&1 || true
    stop_session_daemon
    ip netns del "$NS" 2>/dev/null || true
    rm -rf "$WORK"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*"
    local f
    for f in "$WORK"/*.out "$WORK"/*.err "$TRACES"; do
        [ -s "$f" ] || continue
        echo "---- $f"
        tail -n 40 "$f"
    done
    exit 1
}

# ---- --help: GLib's help on standard output, status 0.
"$DAEMON" --help >"$WORK/help.out" || fail "--help ended with status $?"
grep -q '^Usage:' "$WORK/help.out" || fail "no usage line"
grep -qF 'application is listening for IPv6 ND RA messages,' "$WORK/help.out" || fail "no usage summary"
grep -qE '^  -n, --namespace=NAMESPACE +Linux network namespace$' "$WORK/help.out" || fail "no namespace option"

# ---- A bad option: the error and the help on standard output, then a restart request.
set +e
"$DAEMON" --bogus >"$WORK/bogus.out" 2>"$WORK/bogus.err"
status=$?
set -e
[ "$status" -eq 70 ] || fail "a bad option ended with status $status, not the restart request's 70"
[ "$(head -n1 "$WORK/bogus.out")" = "ERROR: Unknown option --bogus" ] || fail "no parse error line first"
grep -q '^Usage:' "$WORK/bogus.out" || fail "no help after the parse error"
grep -qE '^solicd: restart requested at .*SolApp\.cpp:[0-9]+: Abonrnal solicd termination result: 1$' \
    "$WORK/bogus.err" || fail "no restart request for the bad option"

# ---- The lab: one namespace, a veth pair inside it, link-local addresses usable.
ip netns add "$NS"
ip -n "$NS" link set lo up
ip -n "$NS" link add "$IF" type veth peer name "$PEER"
ip -n "$NS" link set "$IF" up
ip -n "$NS" link set "$PEER" up
for _ in $(seq 1 100); do
    if ip -n "$NS" -6 addr show dev "$IF" scope link | grep -q inet6 &&
        ! ip -n "$NS" -6 addr show dev "$IF" | grep -q tentative; then
        break
    fi
    sleep 0.1
done

# ---- A session that records the daemon only.
start_session_daemon
lttng create "$SESSION" --output="$WORK/trace" >/dev/null
lttng enable-event --userspace 'com_orvane_kt_solicd:*' --session="$SESSION" \
    --filter '$ctx.procname == "solicd"' >/dev/null
lttng start "$SESSION" >/dev/null

LMX_DIR="$WORK/lmx" LTTNG_UST_REGISTER_TIMEOUT=20000 \
    "$DAEMON" -n "$NS" -i "$IF" -s "$MBOX" -d "client-$RUN" >"$WORK/daemon.out" 2>"$WORK/daemon.err" &
daemon_pid=$!

# count_traced TEXT: how many recorded messages so far contain TEXT (rotating the session makes
# what was recorded readable while the daemon runs).
count_traced() {
    lttng rotate "$SESSION" >/dev/null 2>&1 || true
    babeltrace2 "$WORK/trace/archives" >"$TRACES" 2>/dev/null || true
    grep -cF -- "$1" "$TRACES" || true
}

# wait_traced TEXT [COUNT]: until TEXT has been traced COUNT times (default 1), with a guard.
wait_traced() {
    local deadline=$((SECONDS + 30))
    while [ "$(count_traced "$1")" -lt "${2:-1}" ]; do
        kill -0 "$daemon_pid" 2>/dev/null || fail "the daemon ended while waiting for: $1"
        [ $SECONDS -lt $deadline ] || fail "not traced within 30 s: $1"
        sleep 0.2
    done
}

wait_traced "init(): [$MBOX] Solicd initialization finished"

kill -HUP "$daemon_pid"
wait_traced "handleSignalEvent(): [$MBOX] Unix Signal Hangup (1), received and ignored"
kill -QUIT "$daemon_pid"
wait_traced "handleSignalEvent(): [$MBOX] Unix Signal Quit (3), received and ignored"
# SIGPIPE has no handler: a second SIGHUP behind it shows that the daemon went on.
kill -PIPE "$daemon_pid"
kill -HUP "$daemon_pid"
wait_traced "handleSignalEvent(): [$MBOX] Unix Signal Hangup (1), received and ignored" 2
kill -0 "$daemon_pid" || fail "the daemon did not survive SIGHUP, SIGQUIT and SIGPIPE"

kill -TERM "$daemon_pid"
set +e
wait "$daemon_pid"
status=$?
set -e
daemon_pid=""
[ "$status" -eq 0 ] || fail "SIGTERM ended the daemon with status $status"

lttng stop "$SESSION" >/dev/null
lttng destroy "$SESSION" >/dev/null
babeltrace2 "$WORK/trace" >"$TRACES"
grep -q 'Broken pipe' "$TRACES" && fail "SIGPIPE reached a handler"

# The end, in this order: the signal, the termination, one removal per descriptor source.
sed -nE 's/.*message = "(.*)" \}$/\1/p' "$TRACES" >"$WORK/messages.txt"
start=$(grep -nF "cbSignalEvent(): [$MBOX] Unix Signal Terminated (15), is received" "$WORK/messages.txt" |
    cut -d: -f1)
[ -n "$start" ] || fail "SIGTERM not traced"
mapfile -t end < <(tail -n +"$start" "$WORK/messages.txt")
[ "${#end[@]}" -eq 4 ] || fail "not four traces from SIGTERM on: ${end[*]}"
[ "${end[1]}" = "terminate(): [$MBOX] Terminating. result 0" ] || fail "second: ${end[1]}"
removed_re="^terminate\(\): \[$MBOX\] FD for EVENT_SRC_TYPE_(SOCKET|LMX) with ID [0-9]+ was removed$"
[[ "${end[2]}" =~ $removed_re && "${BASH_REMATCH[1]}" = SOCKET ]] || fail "third: ${end[2]}"
[[ "${end[3]}" =~ $removed_re && "${BASH_REMATCH[1]}" = LMX ]] || fail "fourth: ${end[3]}"
[ ! -s "$WORK/daemon.err" ] || fail "the daemon wrote to stderr"
echo "PASS: help, bad command line, ignored signals and the clean end of the real daemon"

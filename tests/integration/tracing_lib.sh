# Shared by the tests that read traces from a real LTTng session (sourced). Every integration test
# runs through isolated.sh: the session daemon started here serves this test alone, and no session
# elsewhere on the machine sees the test's processes. Run by hand, a test isolates itself first.
if [ -z "${SOLICD_TEST_ISOLATED:-}" ] && [ "$(id -u)" -eq 0 ]; then
    exec bash "$(dirname "${BASH_SOURCE[0]}")/isolated.sh" "$0" "$@"
fi

SESSIOND_PID=""

# start_session_daemon: the test's own session daemon, answering when this returns.
start_session_daemon()
{
    lttng-sessiond --daemonize --no-kernel
    SESSIOND_PID=$(cat /run/lttng/lttng-sessiond.pid)
}

# stop_tracing: destroys the test's session TRACE_SESSION (if any) and stops the session daemon;
# for the test's EXIT trap, before the lab's cleanup.
stop_tracing()
{
    [ -z "${TRACE_SESSION:-}" ] || lttng destroy "$TRACE_SESSION" >/dev/null 2>&1 || true
    stop_session_daemon
}

# stop_session_daemon: stops it and waits until it is gone (from the test's cleanup).
stop_session_daemon()
{
    [ -n "$SESSIOND_PID" ] || return 0
    kill "$SESSIOND_PID" 2>/dev/null || true
    timeout 20 tail --pid="$SESSIOND_PID" -s 0.1 -f /dev/null || true
    SESSIOND_PID=""
}

# start_traced_solicd SESSION EVENTS: solicd in HOST on IH (the e2e lab's names), recorded from its
# first trace by SESSION, which enables EVENTS ('com_orvane_kt_solicd:*' or one event) with the
# vpid context and tracks this process alone. solicd waits behind a FIFO until the session
# records. Sets SOLICD_PID.
start_traced_solicd()
{
    local session=$1 events=$2
    mkfifo "$WORK/go"
    (
        read -r _ <"$WORK/go"
        LTTNG_UST_REGISTER_TIMEOUT=20000 exec "$SOLICD" -n "$HOST" -i "$IH" -s "$DAEMON_MBOX" -d "$CLIENT_MBOX" \
            >"$WORK/solicd.out" 2>"$WORK/solicd.err"
    ) &
    SOLICD_PID=$!
    PIDS+=("$SOLICD_PID")
    lttng create "$session" --output="$WORK/trace" >/dev/null
    lttng enable-event --userspace "$events" --session="$session" >/dev/null
    lttng add-context --userspace --type=vpid --session="$session" >/dev/null
    lttng track --userspace --vpid="$SOLICD_PID" --session="$session" >/dev/null
    lttng start "$session" >/dev/null
    echo go >"$WORK/go"
}

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

# stop_session_daemon: stops it and waits until it is gone (from the test's cleanup).
stop_session_daemon()
{
    [ -n "$SESSIOND_PID" ] || return 0
    kill "$SESSIOND_PID" 2>/dev/null || true
    timeout 20 tail --pid="$SESSIOND_PID" -s 0.1 -f /dev/null || true
    SESSIOND_PID=""
}

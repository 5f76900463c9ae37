#!/usr/bin/env bash
# Every trace event reaches a real LTTng session with its location, category and message intact.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root to run an LTTng session daemon and read its traces"
    exit 77
fi
for tool in lttng lttng-sessiond babeltrace2; do
    command -v "$tool" >/dev/null || { echo "FAIL: $tool is missing; run scripts/install-deps"; exit 1; }
done
source "$(dirname "$0")/tracing_lib.sh"

: "${SOLICD_BUILD:?}" "${SOLICD_SRC:?}"
emitter="$SOLICD_BUILD/bin/trace_emitter"
source_file="$SOLICD_SRC/tests/integration/trace_emitter.cpp"
[ -x "$emitter" ] || { echo "FAIL: $emitter not built"; exit 1; }

session="solicd-it-$$"
workdir="$(mktemp -d /tmp/solicd-lttng.XXXXXX)"

cleanup() {
    lttng destroy "$session" >/dev/null 2>&1 || true
    stop_session_daemon
    rm -rf "$workdir"
}
trap cleanup EXIT

start_session_daemon
lttng create "$session" --output="$workdir/trace" >/dev/null
lttng enable-event --userspace 'com_orvane_kt_solicd:*' --session="$session" >/dev/null
lttng start "$session" >/dev/null
# The provider registers with the session daemon before main; allow a loaded machine time for it.
LTTNG_UST_REGISTER_TIMEOUT=20000 "$emitter"
lttng stop "$session" >/dev/null
lttng destroy "$session" >/dev/null

babeltrace2 "$workdir/trace" >"$workdir/out.txt"

line_of() {
    grep -n "SOL_TRACE($1," "$source_file" | cut -d: -f1
}

expect() {
    local event="$1" category="$2" message="$3"
    local record="com_orvane_kt_solicd:$event: { cpu_id = [0-9]+ }, { location = \"trace_emitter.cpp:$(line_of "$event")\", category = \"$category\", message = \"$message\" }$"
    if ! grep -Eq -- "$record" "$workdir/out.txt"; then
        echo "FAIL: no $event record matching: $record"
        echo "--- babeltrace2 output:"
        cat "$workdir/out.txt"
        exit 1
    fi
}

expect INFO GENERAL 'init\(\): \[solcid\.it-eth0\] Solicd initialization started'
expect ERROR ADDR_IPV6 'orderTimeout\(\): \[solcid\.it-eth0\] error 42 of emitter'
expect EXCEPTION GENERAL 'receive\(\): \[solcid\.it-eth0\] exception text'
expect LAB ADDR_IPV6 'addFdEvent\(\): \[solcid\.it-eth0\] lab 7'

count="$(grep -c 'com_orvane_kt_solicd:' "$workdir/out.txt")"
if [ "$count" -ne 4 ]; then
    echo "FAIL: expected 4 records, got $count"
    cat "$workdir/out.txt"
    exit 1
fi
echo "PASS: INFO, ERROR, EXCEPTION and LAB reached the LTTng session intact"

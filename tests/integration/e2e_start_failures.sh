#!/usr/bin/env bash
# Why a start failed reaches the operator without a tracing session: with SOLICD_TRACE_STDERR set,
# a namespace that does not exist, an interface that is not there and interface names of 16 and
# 20 characters (whose first 15 name a real interface) each end solicd at once with the exact
# ERROR text on stderr, before the restart request; a name of exactly 15 characters works. The
# same failure is still recorded by an LTTng session, and the systemd unit's own command line and
# environment (or the unit under systemd-run, where systemd runs the machine) show the cause.
source "$(dirname "$0")/tracing_lib.sh"
source "$(dirname "$0")/e2e_lib.sh"
for tool in lttng lttng-sessiond babeltrace2; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed (scripts/install-deps)"; exit 77; }
done
UNIT=$SOLICD_BUILD/packaging/solicd@.service
[ -f "$UNIT" ] || fail "$UNIT not built"

session=solicd-start-$RUN
trap 'lttng destroy "$session" >/dev/null 2>&1 || true; stop_session_daemon; cleanup' EXIT

lab_up

# fails_with NAME LINE_REGEX ARGS...: solicd with ARGS and the mirror of ERROR and EXCEPTION ends
# by itself within 10 s with status 70; the first line on its stderr matches LINE_REGEX (an
# extended regular expression of the whole line) and the last is the restart request.
fails_with()
{
    local name=$1 first=$2
    shift 2
    SOLICD_TRACE_STDERR=ERROR,EXCEPTION "$SOLICD" "$@" >"$WORK/$name.out" 2>"$WORK/$name.err" &
    local pid=$!
    PIDS+=("$pid")
    wait_exit "$pid" 10
    [ "$EXIT_STATUS" -eq 70 ] || fail "$name: solicd ended with $EXIT_STATUS, not 70"
    head -n 1 "$WORK/$name.err" | grep -Eqx -- "$first" ||
        fail "$name: the first line on stderr is not /$first/: $(head -n 1 "$WORK/$name.err")"
    tail -n 1 "$WORK/$name.err" |
        grep -Eqx 'solicd: restart requested at [^ ]*src/SolApp\.cpp:[0-9]+: Abonrnal solicd termination result: 1' ||
        fail "$name: the last line on stderr is not the restart request: $(tail -n 1 "$WORK/$name.err")"
    # Only ERROR lines between them: the start-up's INFO and LAB traces are not mirrored.
    local lines
    lines=$(sed '$d' "$WORK/$name.err" | grep -cv '^ERROR ' || true)
    [ "$lines" -eq 0 ] || fail "$name: stderr holds more than ERROR lines and the restart request"
}

MBOX=$DAEMON_MBOX
nsError="ERROR ADDR_IPV6 SocketMgr\.cpp:[0-9]+ init\(\): \[$MBOX\] Unable to set namespace 'nosuch-$RUN', function 'open' failed, error: No such file or directory \(2\)"
fails_with namespace "$nsError" -n "nosuch-$RUN" -i "$IH" -s "$MBOX" -d "$CLIENT_MBOX"
grep -Eqx "ERROR GENERAL SolApp\.cpp:[0-9]+ terminate\(\): Abonrnal solicd termination result: 1" \
    "$WORK/namespace.err" || fail "namespace: no ERROR line of the abnormal termination"

fails_with interface \
    "ERROR ADDR_IPV6 SocketMgr\.cpp:[0-9]+ init\(\): \[$MBOX\] Unable to bind socket to interface nosuch$RUN, error: No such device \(19\)" \
    -n "$HOST" -i "nosuch$RUN" -s "$MBOX" -d "$CLIENT_MBOX"

# A real interface whose name has exactly 15 characters, and two longer names that begin with it.
long=$(printf 'l%sxxxxxxxxxxxxxxx' "$RUN" | cut -c1-15)
[ ${#long} -eq 15 ] || fail "test bug: '$long' is not 15 characters"
ip -n "$HOST" link add "$long" type veth peer name "p$RUN"
quiet_if "$HOST" "$long"
ip -n "$HOST" link set "$long" up
ip -n "$HOST" link set "p$RUN" up
for name in "${long}0" "${long}01234"; do
    fails_with "long${#name}" \
        "ERROR ADDR_IPV6 SocketMgr\.cpp:[0-9]+ init\(\): \[$MBOX\] Interface name '$name' is longer than 15 characters" \
        -n "$HOST" -i "$name" -s "$MBOX" -d "$CLIENT_MBOX"
done
SOLICD_TRACE_STDERR=ERROR,EXCEPTION "$SOLICD" -n "$HOST" -i "$long" -s "$MBOX" -d "$CLIENT_MBOX" \
    >"$WORK/long15.out" 2>"$WORK/long15.err" &
SOLICD_PID=$!
PIDS+=("$SOLICD_PID")
wait_ready 20
kill -TERM "$SOLICD_PID"
wait_exit "$SOLICD_PID" 10
[ "$EXIT_STATUS" -eq 0 ] || fail "solicd on '$long' ended with $EXIT_STATUS"
[ ! -s "$WORK/long15.err" ] || fail "solicd on '$long' wrote to stderr: $(cat "$WORK/long15.err")"

# A session recording at the same time still gets the events the mirror shows.
start_session_daemon
lttng create "$session" --output="$WORK/trace" >/dev/null
lttng enable-event --userspace 'com_orvane_kt_solicd:*' --session="$session" >/dev/null
lttng start "$session" >/dev/null
LTTNG_UST_REGISTER_TIMEOUT=20000 fails_with traced "$nsError" -n "nosuch-$RUN" -i "$IH" -s "$MBOX" -d "$CLIENT_MBOX"
lttng stop "$session" >/dev/null
babeltrace2 "$WORK/trace" >"$WORK/trace.txt"
expected=$(head -n 1 "$WORK/traced.err" | sed -E 's/^ERROR ADDR_IPV6 ([^ ]+) (.*)$/location = "\1", category = "ADDR_IPV6", message = "\2"/')
expected=${expected//\'/\\\'}  # babeltrace2 escapes single quotes
grep -F "com_orvane_kt_solicd:ERROR:" "$WORK/trace.txt" | grep -qF -- "$expected" ||
    fail "the session did not record what stderr showed: $expected"
[ "$(grep -c 'com_orvane_kt_solicd:ERROR:' "$WORK/trace.txt")" -eq "$(grep -c '^ERROR ' "$WORK/traced.err")" ] ||
    fail "the session and stderr do not have the same ERROR records"

# The unit's own command line and environment for an instance whose namespace does not exist.
printf 'NAMESPACE=nosuch-%s\nINTERFACE=%s\nDESTINATION=%s\nSOURCE=%s\n' "$RUN" "$IH" "$CLIENT_MBOX" "$MBOX" \
    >"$WORK/instance.conf"
unit_environment=()
while IFS= read -r assignment; do
    unit_environment+=("$assignment")
done < <(sed -n 's/^Environment=//p' "$UNIT")
grep -qx 'SOLICD_TRACE_STDERR=ERROR,EXCEPTION' < <(printf '%s\n' "${unit_environment[@]}") ||
    fail "the unit does not set SOLICD_TRACE_STDERR=ERROR,EXCEPTION"
exec_start=$(sed -n 's/^ExecStart=//p' "$UNIT")
unit_args=()
for word in ${exec_start#* }; do
    while read -r key value; do
        word=${word//"\${$key}"/$value}
    done < <(sed 's/=/ /' "$WORK/instance.conf")
    unit_args+=("$word")
done
if [ -d /run/systemd/system ] && command -v systemd-run >/dev/null; then
    # systemd runs this machine: the unit's settings under systemd-run, read back from the journal.
    unit_name=solicd-start-$RUN
    properties=(-p "Environment=LMX_DIR=$LMX_DIR")
    for assignment in "${unit_environment[@]}"; do
        properties+=(-p "Environment=$assignment")
    done
    systemd-run --quiet --wait --collect --unit="$unit_name" "${properties[@]}" "$SOLICD" "${unit_args[@]}" || true
    journalctl --quiet -o cat -u "$unit_name" >"$WORK/unit.err"
else
    env "${unit_environment[@]}" "$SOLICD" "${unit_args[@]}" >"$WORK/unit.out" 2>"$WORK/unit.err" &
    pid=$!
    PIDS+=("$pid")
    wait_exit "$pid" 10
fi
grep -Eq -- "$nsError" "$WORK/unit.err" || fail "the unit's run does not show the cause: $(cat "$WORK/unit.err")"
grep -q '^solicd: restart requested at ' "$WORK/unit.err" || fail "the unit's run shows no restart request"
echo "PASS"

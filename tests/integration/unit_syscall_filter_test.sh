#!/usr/bin/env bash
# Every system call solicd makes, its LTTng-UST threads included, is one that solicd@.service's
# SystemCallFilter allows, and every socket it opens is of a family RestrictAddressFamilies
# allows. Recorded with strace over start-up, tracing to a session, the notifications to a
# service manager (a socket of the test's own), solicitations, an RA, a show-cache request,
# SIGHUP and SIGTERM.
source "$(dirname "$0")/tracing_lib.sh"
source "$(dirname "$0")/packaging_lib.sh"
need_root "trace a daemon in network namespaces"
need_tools strace systemd-analyze unshare ip lttng lttng-sessiond
solicctl="$SOLICD_BUILD/bin/solicctl"

daemon="$SOLICD_BUILD/bin/solicd"
sender="$SOLICD_BUILD/bin/icmp6_sender"
unit="$SOLICD_BUILD/packaging/solicd@.service"
[ -x "$daemon" ] && [ -x "$sender" ] && [ -f "$unit" ] || fail "solicd, icmp6_sender or the unit not built"

run=$(printf '%x%x' $$ $((RANDOM % 256)))
ns=ssf$run
ifname=sf$run
peer=sp$run
mbox=solicd-$run
strace_pid=""
daemon_pid=""
listener_pid=""
cleanup() {
    set +e
    if [ -n "$strace_pid" ]; then
        kill -KILL "$daemon_pid" "$strace_pid"
        wait "$strace_pid"
    fi 2>/dev/null
    if [ -n "$listener_pid" ]; then
        kill "$listener_pid"
        wait "$listener_pid"
    fi 2>/dev/null
    stop_session_daemon
    ip netns del "$ns" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

# The filter as the unit states it: each SystemCallFilter= line adds (a set) or takes away (~).
expand_set() {
    local entry
    systemd-analyze syscall-filter "$1" | tail -n +2 | sed 's/^ *//; /^#/d; /^$/d' |
        while read -r entry; do
            case "$entry" in
                @*) expand_set "$entry" ;;
                *) echo "$entry" ;;
            esac
        done
}
: >"$work/allowed"
while read -r line; do
    words=${line#SystemCallFilter=}
    if [ "${words#\~}" != "$words" ]; then
        for set in ${words#\~}; do expand_set "$set"; done | sort -u >"$work/denied"
        comm -23 "$work/allowed" "$work/denied" >"$work/kept" && mv "$work/kept" "$work/allowed"
    else
        for set in $words; do expand_set "$set"; done | sort -u - "$work/allowed" -o "$work/allowed"
    fi
done < <(grep '^SystemCallFilter=' "$unit")
[ -s "$work/allowed" ] || fail "the unit states no system call filter"
families=$(sed -n 's/^RestrictAddressFamilies=//p' "$unit")
[ -n "$families" ] || fail "the unit restricts no address families"

ip netns add "$ns"
ip -n "$ns" link add "$ifname" type veth peer name "$peer"
ip netns exec "$ns" sysctl -qw "net.ipv6.conf.$ifname.accept_dad=0" "net.ipv6.conf.$peer.accept_dad=0"
ip -n "$ns" link set "$ifname" up
ip -n "$ns" link set "$peer" up

start_session_daemon
lttng create "filter-$run" --output="$work/trace" >/dev/null
lttng enable-event --userspace 'com_orvane_kt_solicd:*' --session="filter-$run" >/dev/null
lttng start "filter-$run" >/dev/null

"$SOLICD_BUILD/bin/notify_listener" "$work/notify" >"$work/notify.out" 2>"$work/notify.err" &
listener_pid=$!
for _ in $(seq 1 50); do [ -S "$work/notify" ] && break; sleep 0.1; done
NOTIFY_SOCKET=$work/notify LMX_DIR=$work/lmx LTTNG_UST_REGISTER_TIMEOUT=20000 strace -f -qq -o "$work/strace.txt" \
    "$daemon" -n "$ns" -i "$ifname" -s "$mbox" -d "client-$run" >"$work/daemon.out" 2>"$work/daemon.err" &
strace_pid=$!
deadline=$((SECONDS + 20))
until [ -S "$work/lmx/$mbox" ]; do
    kill -0 "$strace_pid" 2>/dev/null || fail "solicd ended: $(cat "$work/daemon.err")"
    [ $SECONDS -lt $deadline ] || fail "solicd's mailbox did not appear within 20 s"
    sleep 0.1
done
# Signals go to solicd, strace's child: strace itself would detach on them.
daemon_pid=$(pgrep -P "$strace_pid" -x solicd) || fail "no solicd under strace $strace_pid"
# An RA from the other end of the link, a signal it ignores, then the end.
ip netns exec "$ns" "$sender" "$peer" ff02::1 134 16 || fail "could not send an RA"
LMX_DIR=$work/lmx "$solicctl" show "$mbox" >"$work/show.out" || fail "solicd under strace does not answer show"
kill -HUP "$daemon_pid"
# An answer after the signal: solicd has taken it and goes on.
LMX_DIR=$work/lmx "$solicctl" show "$mbox" >/dev/null || fail "solicd under strace did not go on after SIGHUP"
kill -TERM "$daemon_pid"
status=0
wait "$strace_pid" || status=$?
strace_pid=""
[ "$status" -eq 0 ] || fail "solicd under strace ended with $status: $(cat "$work/daemon.err")"
lttng destroy "filter-$run" >/dev/null
grep -qx READY=1 "$work/notify.out" || fail "solicd under strace told the service manager nothing: $(cat "$work/notify.out")"

# System calls by name; strace writes "PID name(" and "PID <... name resumed>".
sed -nE 's/^[0-9]+ +(<\.\.\. )?([a-z0-9_]+)(\(| resumed>).*/\2/p' "$work/strace.txt" | sort -u >"$work/used"
[ "$(wc -l <"$work/used")" -gt 20 ] || fail "strace recorded too little: $(head "$work/strace.txt")"
refused=$(comm -23 "$work/used" "$work/allowed" | tr '\n' ' ')
[ -z "$refused" ] || fail "solicd makes system calls the unit's filter refuses: $refused"
opened=$(sed -nE 's/^[0-9]+ +socket(pair)?\((AF_[A-Z0-9]+),.*/\2/p' "$work/strace.txt" | sort -u | tr '\n' ' ')
for family in $opened; do
    [[ " $families " == *" $family "* ]] || fail "solicd opens an $family socket; the unit allows $families"
done
[[ "$opened" == *AF_INET6* ]] || fail "strace saw no AF_INET6 socket: $opened"
echo "PASS: $(wc -l <"$work/used") system calls, all allowed by the unit's filter; socket families: $opened"

#!/usr/bin/env bash
# solicd works inside what solicd@.service grants it: only CAP_NET_RAW and CAP_SYS_ADMIN, no new
# privileges, every file system read-only but the mailbox directory. It enters its namespace,
# opens its raw socket there, answers `solicctl show` and ends with status 0 on SIGTERM. Without
# either capability it asks for a restart instead, so the two are needed as well as enough.
source "$(dirname "$0")/packaging_lib.sh"
need_root "enter network namespaces and open raw sockets"
need_tools ip unshare setpriv findmnt

daemon="$SOLICD_BUILD/bin/solicd"
solicctl="$SOLICD_BUILD/bin/solicctl"
[ -x "$daemon" ] && [ -x "$solicctl" ] || fail "solicd or solicctl not built"

# Short unique suffix: interface names must stay within 15 characters.
run=$(printf '%x%x' $$ $((RANDOM % 256)))
ns=scf$run
ifname=cf$run
peer=cp$run
mbox=solicd-$run
lmx=$work/lmx
mkdir -m 0770 "$lmx"
daemon_pid=""
cleanup() {
    set +e
    if [ -n "$daemon_pid" ]; then
        kill -KILL "$daemon_pid"
        wait "$daemon_pid"
    fi 2>/dev/null
    ip netns del "$ns" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

ip netns add "$ns"
ip -n "$ns" link add "$ifname" type veth peer name "$peer"
# No duplicate address detection: the link-local address is usable at once.
ip netns exec "$ns" sysctl -qw "net.ipv6.conf.$ifname.accept_dad=0"
ip -n "$ns" link set "$ifname" up
ip -n "$ns" link set "$peer" up

# Starts solicd in the background as the unit would run it, with the capabilities $1 (a
# setpriv bounding set). Every mount but the API file systems and the mailbox directory is made
# read-only in a mount namespace of its own, as ProtectSystem=strict with ReadWritePaths does.
start_confined() {
    local caps=$1
    unshare --mount --propagation private bash -c '
        set -e
        lmx=$1 caps=$2
        shift 2
        mount --bind "$lmx" "$lmx"
        findmnt -rn -o TARGET | while read -r target; do
            target=$(printf "%b" "$target")
            case "$target" in
                /proc | /proc/* | /sys | /sys/* | /dev | /dev/* | "$lmx") ;;
                *) mount -o remount,bind,ro "$target" 2>/dev/null || true ;;
            esac
        done
        touch /etc/.solicd-confined 2>/dev/null && { echo "the root is writable"; exit 1; }
        exec setpriv --no-new-privs --inh-caps=-all --bounding-set="$caps" "$@"
    ' confine "$lmx" "$caps" env LMX_DIR="$lmx" \
        "$daemon" -n "$ns" -i "$ifname" -s "$mbox" -d "client-$run" >"$work/daemon.out" 2>"$work/daemon.err" &
    daemon_pid=$!
}

# A capability short: the daemon must end with the restart request's status 70.
expect_restart_without() {
    local caps=$1 missing=$2 status=0
    start_confined "$caps"
    timeout 20 tail --pid="$daemon_pid" -s 0.1 -f /dev/null || fail "without $missing solicd keeps running"
    wait "$daemon_pid" || status=$?
    daemon_pid=""
    [ "$status" -eq 70 ] || fail "without $missing solicd ended with $status, not 70: $(cat "$work/daemon.err")"
    grep -q '^solicd: restart requested at ' "$work/daemon.err" ||
        fail "without $missing no restart request: $(cat "$work/daemon.err")"
}
expect_restart_without -all,+sys_admin CAP_NET_RAW
expect_restart_without -all,+net_raw CAP_SYS_ADMIN

start_confined -all,+net_raw,+sys_admin
listed() {
    local names
    names=$(LMX_DIR=$lmx "$solicctl" ls 2>/dev/null) && grep -qx "$mbox" <<<"$names"
}
deadline=$((SECONDS + 20))
until listed; do
    kill -0 "$daemon_pid" 2>/dev/null || fail "confined solicd ended: $(cat "$work/daemon.err")"
    [ $SECONDS -lt $deadline ] || fail "confined solicd's mailbox $mbox did not appear within 20 s"
    sleep 0.1
done
# Its mailbox comes after the socket set-up: one of its descriptors is a raw socket for
# ICMPv6 (protocol 58, 0x3A) of the namespace.
raw6=$(ip netns exec "$ns" cat /proc/net/raw6)
found=""
for fd in /proc/"$daemon_pid"/fd/*; do
    inode=$(readlink "$fd" | sed -n 's/^socket:\[\([0-9]*\)\]$/\1/p')
    [ -n "$inode" ] && awk -v i="$inode" '$2 ~ /:003A$/ && $10 == i { f = 1 } END { exit !f }' <<<"$raw6" &&
        found=$inode
done
[ -n "$found" ] || fail "no raw ICMPv6 socket of solicd in $ns: $raw6"
LMX_DIR=$lmx "$solicctl" show "$mbox" >"$work/show.out" || fail "confined solicd does not answer show"
grep -q '^Counters:' "$work/show.out" || fail "confined solicd's show answer has no counters: $(cat "$work/show.out")"

kill -TERM "$daemon_pid"
status=0
wait "$daemon_pid" || status=$?
daemon_pid=""
[ "$status" -eq 0 ] || fail "SIGTERM ended confined solicd with $status: $(cat "$work/daemon.err")"
[ ! -s "$work/daemon.err" ] || fail "confined solicd wrote to stderr: $(cat "$work/daemon.err")"
echo "PASS: solicd runs with CAP_NET_RAW and CAP_SYS_ADMIN alone on a read-only system, and needs both"

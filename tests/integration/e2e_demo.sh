#!/usr/bin/env bash
# scripts/demo, the script behind `make demo`: it shows the updates, the show-cache answer and
# the router's lifetime dropping to 0, within a minute, and leaves nothing behind (namespaces,
# processes, files), both when it runs to its end and when Ctrl-C interrupts it.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: the demo needs root for network namespaces and raw sockets"
    exit 77
fi
command -v radvd >/dev/null || { echo "skipped: radvd is not installed (scripts/install-deps)"; exit 77; }
: "${SOLICD_BUILD:?}" "${SOLICD_SRC:?}"
export SOLICD_BIN=$SOLICD_BUILD/bin
demo=$SOLICD_SRC/scripts/demo
WORK=$(mktemp -d /tmp/solicd-demo-test.XXXXXX)
# The demo's scratch directory lands here, so that what it leaves is easy to find.
export TMPDIR=$WORK/tmp
mkdir "$TMPDIR"
demo_pid=""

# demo_processes: ids of the processes the demo started (all inherit LMX_DIR under TMPDIR).
demo_processes()
{
    local pid
    for pid in /proc/[0-9]*; do
        grep -qaF "LMX_DIR=$TMPDIR/" "$pid/environ" 2>/dev/null && echo "${pid#/proc/}"
    done
    return 0
}

cleanup()
{
    if [ -n "$demo_pid" ] && kill -0 "$demo_pid" 2>/dev/null; then
        kill -INT -- "-$demo_pid" 2>/dev/null || true
        sleep 5
    fi
    # Whatever a failed run left: this run's processes by id, its namespaces by name.
    local pid ns
    for pid in $(demo_processes); do
        kill -KILL "$pid" 2>/dev/null || true
    done
    for ns in $(ip netns list | awk -v p="$demo_pid" '$1 ~ "^solicd-demo-(rtr|host)-" p "$" {print $1}'); do
        ip netns del "$ns" || true
    done
    [ -n "${KEEP_WORK:-}" ] || rm -rf "$WORK"
}
trap cleanup EXIT

fail()
{
    echo "FAIL: $*"
    [ ! -f "$WORK/demo.out" ] || { echo "---- demo output"; cat "$WORK/demo.out"; }
    exit 1
}

# run_demo: the demo in a process group of its own (as a terminal runs it), so that SIGINT
# reaches it as Ctrl-C would; sets demo_pid.
run_demo()
{
    : >"$WORK/demo.out"
    set -m
    bash "$demo" >"$WORK/demo.out" 2>&1 &
    demo_pid=$!
    set +m
}

# wait_demo SECONDS: until the demo ends; its exit status in status.
wait_demo()
{
    local deadline=$((SECONDS + $1))
    while kill -0 "$demo_pid" 2>/dev/null; do
        [ $SECONDS -lt $deadline ] || fail "the demo still runs after $1 s"
        sleep 0.2
    done
    status=0
    wait "$demo_pid" || status=$?
}

has() { grep -Fq -- "$1" "$WORK/demo.out" || fail "not in the demo's output: $1"; }
has_re() { grep -Eq -- "$1" "$WORK/demo.out" || fail "not in the demo's output: $1"; }

# nothing_left: no namespace, no process and no file of the demo remains.
nothing_left()
{
    local ns pid
    ns=$(ip netns list | grep -E "^solicd-demo-(rtr|host)-$demo_pid( |$)" || true)
    [ -z "$ns" ] || fail "namespaces left: $ns"
    for pid in $(demo_processes); do
        fail "process left: $pid $(tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null)"
    done
    [ -z "$(ls -A "$TMPDIR")" ] || fail "files left: $(ls -A "$TMPDIR")"
    [ ! -e "/etc/netns/solicd-demo-host-$demo_pid" ] || fail "left /etc/netns/solicd-demo-host-$demo_pid"
}

# ---- To its end.
start=$SECONDS
run_demo
wait_demo 60
[ "$status" = 0 ] || fail "the demo ended with status $status"
[ $((SECONDS - start)) -lt 60 ] || fail "the demo took a minute or more"
has "== Building the lab: namespace solicd-demo-rtr-$demo_pid (router) and solicd-demo-host-$demo_pid (solicd)"
clock='[0-9]{2}:[0-9]{2}:[0-9]{2}'
has_re "^  watch \| $clock router  fe80::[0-9a-f:]+  STATE_NEW  lifetime 30s  O\$"
has_re "^  watch \| $clock prefix  2001:db8:1::/64  STATE_NEW  valid 1d preferred 4h  L A\$"
has_re "^  watch \| $clock dns     2001:db8::53 2001:db8::54  lifetime 8s\$"
has_re '^  status \| solicd-demo: 1 router, 1 prefix, 2 DNS servers active$'
has_re '^  status \| rx [1-9][0-9]* RAs, 0 rejected; [0-9]+ RS sent; parsed [1-9][0-9]*, dropped 0; prefixes [1-9][0-9]* accepted, 0 ignored$'
has_re '^  status \| fe80::[0-9a-f:]+ +STATE_(NEW|UPDATED) +[0-9]+s +O +30s +1s +[0-9]+s ago$'
has_re '^  status \| 2001:db8:1::/64 +STATE_(NEW|UPDATED) +(1d|23h 59m) +(3h 59m|4h) +L A$'
has_re '^  status \| 2001:db8::53 +STATE_(NEW|UPDATED) +[0-9]s$'
has '  routers | routers: 1'
has_re "^  watch \| $clock router  fe80::[0-9a-f:]+  STATE_INVALIDATED  lifetime 0s  O\$"
has_re '^  status \| solicd-demo: 0 routers, 1 prefix, [0-2] DNS servers? active$'
has_re '^  status \| fe80::[0-9a-f:]+ +STATE_INVALIDATED +expired +O '
has "== ip netns exec solicd-demo-host-$demo_pid cat /etc/resolv.conf (managed by the hook)"
has "  resolv.conf | # Written by solicd's resolv.conf hook from the Router Advertisements on veth-host; do not edit."
has "  resolv.conf | nameserver 2001:db8::53"
has "  resolv.conf | nameserver 2001:db8::54"
has "== Done: tearing the lab down"
! grep -q 'supervisor |\|restart requested' "$WORK/demo.out" || fail "solicd was restarted during the demo"
nothing_left

# ---- Interrupted by Ctrl-C once the updates are showing.
run_demo
deadline=$((SECONDS + 30))
until grep -Eq "^  watch \| $clock dns " "$WORK/demo.out"; do
    [ $SECONDS -lt $deadline ] || fail "no updates from the second demo"
    sleep 0.2
done
kill -INT -- "-$demo_pid"
wait_demo 20
[ "$status" = 130 ] || fail "interrupted demo ended with status $status"
has "demo: interrupted, tearing down"
nothing_left
echo "PASS"

# Shared by the socket integration tests (sourced): a two-namespace veth lab and checks on the
# driver's output, over lab_lib.sh.
LAB=socket LAB_TOOLS=tshark
source "$(dirname "${BASH_SOURCE[0]}")/lab_lib.sh"

BIN=${SOLICD_BUILD:?SOLICD_BUILD not set}/bin
DRIVER=$BIN/socket_driver
SENDER=$BIN/icmp6_sender
[ -x "$DRIVER" ] && [ -x "$SENDER" ] || { echo "FAIL: build the socket_driver and icmp6_sender first"; exit 1; }

# new_ns NAME: a namespace whose interfaces send no Router Solicitations of their own, so that
# every RS on the link is the driver's.
new_ns()
{
    ip netns add "$1"
    NAMESPACES+=("$1")
    ip -n "$1" link set lo up
    ip netns exec "$1" sysctl -qw net.ipv6.conf.default.router_solicitations=0
    ip netns exec "$1" sysctl -qw net.ipv6.conf.all.router_solicitations=0
}

# veth NS_A IF_A NS_B IF_B: one link between two namespaces, both ends down.
veth()
{
    ip link add "$2" netns "$1" type veth peer name "$4" netns "$3"
}

# linked_pair NS_A IF_A NS_B IF_B: two new namespaces joined by one link, both ends up.
linked_pair()
{
    new_ns "$1"
    new_ns "$3"
    veth "$1" "$2" "$3" "$4"
    ip -n "$1" link set "$2" up
    ip -n "$3" link set "$4" up
}

# link_local NS IF: the interface's link-local address.
link_local() { ip -n "$1" -6 -o addr show dev "$2" scope link | awk '{print $4}' | cut -d/ -f1; }

# wait_dad NS IF: until the interface has a link-local address that is no longer tentative.
wait_dad()
{
    local i
    for i in $(seq 1 100); do
        if ip -n "$1" -6 addr show dev "$2" scope link | grep -q 'inet6' &&
            ! ip -n "$1" -6 addr show dev "$2" | grep -q tentative; then
            return 0
        fi
        sleep 0.1
    done
    fail "no usable link-local address on $2 in $1"
}

# start_driver NAME ARGS...: the driver in the background, its output in $WORK/NAME.out; it is
# killed after a minute whatever happens (the netlink wait has no time limit of its own).
start_driver()
{
    local name=$1
    shift
    : >"$WORK/$name.out"
    timeout -k 2 60 "$DRIVER" "$@" >>"$WORK/$name.out" 2>&1 &
    PIDS+=($!)
    LAST_PID=$!
}

# trace_line EVENT CATEGORY MESSAGE: the driver's line for one trace.
trace_line() { printf 'T\t%s\t%s\t%s' "$1" "$2" "$3"; }

# has_line FILE LINE: the exact line is in the file.
has_line() { grep -Fqx -- "$2" "$1"; }

# wait_line FILE LINE SECONDS: until the exact line appears.
wait_line()
{
    local deadline=$((SECONDS + $3))
    while ! has_line "$1" "$2"; do
        [ $SECONDS -lt $deadline ] || fail "not seen within $3 s in $1: $2"
        sleep 0.1
    done
}

# expect_trace FILE EVENT CATEGORY MESSAGE
expect_trace()
{
    has_line "$1" "$(trace_line "$2" "$3" "$4")" || fail "missing in $1: $2 $3 \"$4\""
}

# count_lines FILE LINE
count_lines() { grep -Fxc -- "$2" "$1" || true; }

# mac NS IF
mac() { ip -n "$1" link show dev "$2" 2>/dev/null | awk '/link\/ether/ {print $2}'; }

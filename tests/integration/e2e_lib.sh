# Shared by the end-to-end tests (sourced): the real solicd in one network namespace, a router
# namespace across a veth link (radvd or crafted RAs), solicctl as client, each run with names
# and a mailbox directory of its own, and everything removed on the way out.
# Over lab_lib.sh; KEEP_WORK=1 keeps the outputs of every process.
LAB=e2e LAB_TOOLS=jq
source "$(dirname "${BASH_SOURCE[0]}")/lab_lib.sh"

BIN=${SOLICD_BUILD:?SOLICD_BUILD not set}/bin
SOLICD=$BIN/solicd
SOLICCTL=$BIN/solicctl
RA_SENDER=$BIN/ra_sender
for exe in "$SOLICD" "$SOLICCTL" "$RA_SENDER"; do
    [ -x "$exe" ] || { echo "FAIL: $exe is not built"; exit 1; }
done

# The mailbox directory exists before anyone uses it, as the tmpfiles entry makes /run/lmx at
# boot: solicctl never creates it.
export LMX_DIR=$WORK/lmx
mkdir -p "$LMX_DIR"
RTR=seR$RUN            # the router's namespace
HOST=seH$RUN           # solicd's namespace
IR=er$RUN              # the router's end of the link
IH=eh$RUN              # solicd's end of the link
DAEMON_MBOX=solicd-$RUN
CLIENT_MBOX=client-$RUN

# new_ns NAME: a namespace whose kernel neither solicits nor learns from RAs by itself.
new_ns()
{
    ip netns add "$1"
    NAMESPACES+=("$1")
    ip -n "$1" link set lo up
    ip netns exec "$1" sysctl -qw net.ipv6.conf.default.router_solicitations=0 \
        net.ipv6.conf.all.router_solicitations=0 net.ipv6.conf.default.accept_ra=0 \
        net.ipv6.conf.all.accept_ra=0
}

# quiet_if NS IF: no RS, no RA processing and no DAD on one interface (set after it exists).
quiet_if()
{
    ip netns exec "$1" sysctl -qw "net.ipv6.conf.$2.accept_ra=0" "net.ipv6.conf.$2.router_solicitations=0" \
        "net.ipv6.conf.$2.accept_dad=0"
}

# link_local NS IF: the interface's link-local address.
link_local()
{
    ip -n "$1" -6 -o addr show dev "$2" scope link | awk 'NR == 1 { split($4, a, "/"); print a[1] }'
}

# lab_up: RTR and HOST joined by IR-IH, both ends up with a usable link-local address, forwarding
# on in RTR (radvd wants a router). Sets LL_R and LL_H.
lab_up()
{
    new_ns "$RTR"
    new_ns "$HOST"
    ip link add "$IR" netns "$RTR" type veth peer name "$IH" netns "$HOST"
    quiet_if "$RTR" "$IR"
    quiet_if "$HOST" "$IH"
    ip netns exec "$RTR" sysctl -qw net.ipv6.conf.all.forwarding=1
    ip -n "$RTR" link set "$IR" up
    ip -n "$HOST" link set "$IH" up
    local i
    for i in $(seq 1 100); do
        LL_R=$(link_local "$RTR" "$IR")
        LL_H=$(link_local "$HOST" "$IH")
        [ -n "$LL_R" ] && [ -n "$LL_H" ] && return 0
        sleep 0.1
    done
    fail "no link-local addresses on the lab link"
}

# router_address ADDR: one more source address for crafted RAs (one "router" per address).
# Even without DAD the kernel clears an address's tentative flag asynchronously, and a
# tentative address cannot be a source yet: wait for it.
router_address()
{
    ip -n "$RTR" addr add "$1/64" dev "$IR" nodad
    local i shown
    for i in $(seq 1 100); do
        shown=$(ip -n "$RTR" -6 -o addr show dev "$IR")
        grep -q " $1/64 " <<<"$shown" && ! grep -q " $1/64 .*tentative" <<<"$shown" && return 0
        sleep 0.1
    done
    fail "address $1 on $IR stays tentative"
}

# send_ra SOURCE [FIELD=VALUE]...: one crafted RA to ff02::1 from SOURCE (see ra_sender.cpp).
send_ra()
{
    local source=$1 try
    shift
    # The kernel refuses a multicast send for a moment when its neighbour table (one for all
    # namespaces) is full; that is the test bed, not solicd: try a few times before failing.
    for try in 1 2 3 4 5; do
        ip netns exec "$RTR" "$RA_SENDER" "$IR" "$source" ff02::1 "$@" && return 0
        sleep 0.5
    done
    fail "sending RA from $source: $*"
}

# start_radvd CONFIG_TEXT: radvd on IR with the given interface body; sets RADVD_PID.
start_radvd()
{
    printf 'interface %s {\n%s\n};\n' "$IR" "$1" >"$WORK/radvd.conf"
    ip netns exec "$RTR" radvd -n -C "$WORK/radvd.conf" -p "$WORK/radvd.pid" -m stderr >"$WORK/radvd.log" 2>&1 &
    RADVD_PID=$!
    PIDS+=("$RADVD_PID")
}

# start_solicd [ARGS...]: solicd in HOST on IH with this run's mailboxes, in the background;
# stdout in solicd.out, stderr in solicd.err. Sets SOLICD_PID.
start_solicd()
{
    "$SOLICD" -n "$HOST" -i "$IH" -s "$DAEMON_MBOX" -d "$CLIENT_MBOX" "$@" >>"$WORK/solicd.out" 2>>"$WORK/solicd.err" &
    SOLICD_PID=$!
    PIDS+=("$SOLICD_PID")
}

# wait_ready SECONDS: until solicd answers a show-cache request (its loop runs, socket bound).
wait_ready()
{
    local deadline=$((SECONDS + $1))
    until "$SOLICCTL" show "$DAEMON_MBOX" >/dev/null 2>&1; do
        [ $SECONDS -lt $deadline ] || fail "solicd did not answer within $1 s"
        sleep 0.2
    done
}

# show_has REGEX: solicd's show-cache answer has a line matching the basic regular expression.
# (The answer is read whole first: a reader that stops early would break solicctl's pipe.)
show_has()
{
    "$SOLICCTL" show "$DAEMON_MBOX" >"$WORK/show.last" 2>&1 && grep -q -- "$1" "$WORK/show.last"
}

# wait_show REGEX SECONDS: until the show-cache answer has a matching line.
wait_show()
{
    local deadline=$((SECONDS + $2))
    until show_has "$1"; do
        [ $SECONDS -lt $deadline ] || fail "not in the show-cache answer within $2 s: $1"
        sleep 0.1
    done
}

# counter NAME: one of the counters of solicd's show-cache answer (rxRa, txRs, rxRejected, ...).
counter()
{
    "$SOLICCTL" show "$DAEMON_MBOX" | sed -nE "s/.*[{ ]$1: ([0-9]+).*/\1/p" | head -n1
}

# wait_counter NAME AT_LEAST SECONDS: until counter NAME is AT_LEAST; its value in COUNTER.
# (Not in a command substitution: fail would end the subshell alone.)
wait_counter()
{
    local deadline=$((SECONDS + $3))
    until COUNTER=$(counter "$1") && [ "${COUNTER:-0}" -ge "$2" ]; do
        [ $SECONDS -lt $deadline ] || fail "$1 is ${COUNTER:-not there}, not $2, after $3 s"
        sleep 0.1
    done
}

# start_watch NAME [ARGS...]: `solicctl watch CLIENT_MBOX --json` in the background, output in
# NAME.out; returns once its mailbox exists. Sets WATCH_PID.
start_watch()
{
    local name=$1
    shift
    "$SOLICCTL" watch "$CLIENT_MBOX" --json "$@" >"$WORK/$name.out" 2>"$WORK/$name.err" &
    WATCH_PID=$!
    PIDS+=("$WATCH_PID")
    local i
    for i in $(seq 1 50); do
        grep -Fqx "$CLIENT_MBOX" <<<"$("$SOLICCTL" ls 2>/dev/null)" && return 0
        sleep 0.1
    done
    fail "the client mailbox $CLIENT_MBOX did not appear"
}

# wait_socket PATH SECONDS: until the socket file PATH exists.
wait_socket()
{
    local deadline=$((SECONDS + $2))
    until [ -S "$1" ]; do
        [ $SECONDS -lt $deadline ] || fail "no socket $1 after $2 s"
        sleep 0.1
    done
}

# line_count FILE
line_count() { wc -l <"$1"; }

# wait_lines FILE COUNT SECONDS: until FILE holds at least COUNT lines.
wait_lines()
{
    local deadline=$((SECONDS + $3))
    until [ "$(line_count "$1")" -ge "$2" ]; do
        [ $SECONDS -lt $deadline ] || fail "fewer than $2 lines in $1 after $3 s"
        sleep 0.1
    done
}

# expect_json FILE LINE JQ_FILTER [DESCRIPTION]: line LINE (from 1) of FILE satisfies the filter.
expect_json()
{
    local text
    text=$(sed -n "${2}p" "$1")
    [ -n "$text" ] || fail "no line $2 in $1 (${4:-$3})"
    jq -e "$3" >/dev/null <<<"$text" || fail "line $2 of $1 is not ${4:-$3}: $text"
}

# alive PID: the process still runs.
alive() { kill -0 "$1" 2>/dev/null; }

# wait_exit PID SECONDS: waits for a child of this shell to end; its exit status in EXIT_STATUS.
# (Not in a command substitution: a subshell cannot wait for its parent's children.)
wait_exit()
{
    local deadline=$((SECONDS + $2))
    while alive "$1"; do
        [ $SECONDS -lt $deadline ] || fail "process $1 still runs after $2 s"
        sleep 0.1
    done
    EXIT_STATUS=0
    wait "$1" || EXIT_STATUS=$?
}

# find_line FILE JQ_FILTER: the number of the first line of FILE that satisfies the filter.
find_line()
{
    local n=0 line
    while IFS= read -r line; do
        n=$((n + 1))
        if jq -e "$2" >/dev/null 2>&1 <<<"$line"; then
            echo "$n"
            return 0
        fi
    done <"$1"
    return 1
}

# wait_json FILE JQ_FILTER SECONDS: until a line satisfies the filter; prints its number, or
# returns 1 when none did in time (call as n=$(wait_json ...) || fail ...).
wait_json()
{
    local deadline=$((SECONDS + $3))
    until find_line "$1" "$2"; do
        [ $SECONDS -lt $deadline ] || return 1
        sleep 0.2
    done
}

# no_line FILE JQ_FILTER DESCRIPTION: no line satisfies the filter.
no_line()
{
    local n
    if n=$(find_line "$1" "$2"); then
        fail "line $n of $1 should not be there: $3: $(sed -n "${n}p" "$1")"
    fi
}

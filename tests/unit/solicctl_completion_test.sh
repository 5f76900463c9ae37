#!/usr/bin/env bash
# The bash completion of solicctl, sourced into this bash as bash-completion would load it:
# commands, options per command, and live mailbox names from a real mailbox directory.
# Usage: solicctl_completion_test.sh COMPLETION_SCRIPT SOLICCTL LMX_TEST_PEER
set -euo pipefail
script=$1 solicctl=$2 peer=$3

dir=$(mktemp -d /tmp/solicctl-completion.XXXXXX)
peer_pid=""
cleanup() {
    [ -z "$peer_pid" ] || kill "$peer_pid" 2>/dev/null || true
    [ -z "$peer_pid" ] || wait "$peer_pid" 2>/dev/null || true
    rm -rf "$dir"
}
trap cleanup EXIT
failures=0

# shellcheck source=/dev/null
source "$script"

# expect "WORDS..." "CANDIDATES": the candidates for the last word of the line.
expect() {
    local line=$1 want=$2
    read -ra COMP_WORDS <<<"$line"
    [[ $line == *" " ]] && COMP_WORDS+=("")
    COMP_WORDS[0]=$solicctl
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _solicctl
    local got="${COMPREPLY[*]}"
    if [ "$got" != "$want" ]; then
        echo "FAIL: '$line<TAB>' offered '$got', not '$want'" >&2
        failures=$((failures + 1))
    fi
}

# A live mailbox, and a socket file nobody listens on.
exec {peer_out}< <(LMX_DIR=$dir exec "$peer" silent solicd.ns1-eth0)
peer_pid=$!
read -r -t 10 ready <&"$peer_out" && [ "$ready" = ready ] || { echo "FAIL: the test peer did not start" >&2; exit 1; }
python3 -c 'import socket,sys; socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET).bind(sys.argv[1])' "$dir/stale"

expect "solicctl st" "status"
expect "solicctl s" "status show"
expect "solicctl " "ls status health metrics show routers watch hooks help"
expect "solicctl --v" "--version"
expect "solicctl status --" "--json --timeout --dir --help"
expect "solicctl watch x --r" "--raw"
expect "solicctl help w" "watch"
expect "solicctl h" "health hooks help"
expect "solicctl hooks c --d" "--daemon --dir"
expect "solicctl hooks c --daemon x --n" "--namespace"
expect "solicctl --dir $dir metrics " "solicd.ns1-eth0"
expect "solicctl --dir $dir status " "solicd.ns1-eth0"
expect "solicctl --dir $dir show solicd" "solicd.ns1-eth0"
expect "solicctl --dir $dir status solicd.ns1-eth0 " ""
expect "solicctl --dir $dir watch " ""
LMX_DIR=$dir expect "solicctl routers " "solicd.ns1-eth0"
expect "solicctl --dir $dir/missing status " ""
expect "solicctl status --timeout " ""

[ "$failures" -eq 0 ] || exit 1
echo "completion: all candidates as expected"

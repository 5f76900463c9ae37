#!/usr/bin/env bash
# Mailboxes reach across network namespaces: a process that entered its own namespace before
# creating its mailbox and one in the initial namespace locate, monitor and message each other.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
    echo "lmx_netns: skipped, creating a network namespace needs root"
    exit 77
fi
command -v ip >/dev/null || { echo "lmx_netns: skipped, ip (iproute2) is missing"; exit 77; }

ns="lmx-netns-$$"
work=$(mktemp -d)
cleanup() {
    ip netns del "$ns" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

ip netns add "$ns"
export LMX_DIR="$work/mbox"
timeout 60 "$SOLICD_BUILD/bin/lmx_netns_check" "/run/netns/$ns"

# Everything was removed on the way out: no socket file, no hidden temporary name.
if [ -n "$(ls -A "$LMX_DIR")" ]; then
    echo "lmx_netns: left behind in $LMX_DIR: $(ls -A "$LMX_DIR")"
    exit 1
fi
echo "lmx_netns: passed"

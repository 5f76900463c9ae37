#!/usr/bin/env bash
# The shipped resolved hook hands the servers to systemd-resolved only when solicd watches the
# host's own namespace: with SOLICD_NAMESPACE empty it runs `resolvectl dns IF SERVERS` (and
# `resolvectl revert IF` for an empty set); with a namespace named it leaves the host's resolver
# alone, even where the host has an interface of the same name. Run in a mount namespace of its
# own, where /run is a fresh tmpfs holding a running systemd-resolved's directory and a recording
# resolvectl comes first on PATH.
set -euo pipefail
: "${SOLICD_SRC:?}"

if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root to mount a private /run"
    exit 77
fi
if [ -z "${RESOLVED_HOOK_PRIVATE:-}" ]; then
    exec unshare --mount --propagation private env RESOLVED_HOOK_PRIVATE=1 bash "$0" "$@"
fi

fail() {
    echo "FAIL: $*"
    exit 1
}

hook=$SOLICD_SRC/packaging/hooks/resolved
work=$(mktemp -d /tmp/solicd-resolved-hook.XXXXXX)
trap 'rm -rf "$work"' EXIT
mount -t tmpfs -o mode=0755 solicd-test /run
mkdir -p /run/systemd/resolve "$work/bin"
cat >"$work/bin/resolvectl" <<EOF
#!/bin/sh
echo "\$*" >>"$work/calls"
EOF
chmod 755 "$work/bin/resolvectl"

# run_hook NAMESPACE INTERFACE REASON SERVERS: the hook as solicctl hooks runs it; prints the
# resolvectl calls it made, one per line.
run_hook() {
    : >"$work/calls"
    env -i PATH="$work/bin:/usr/sbin:/usr/bin:/sbin:/bin" SOLICD_NAMESPACE="$1" SOLICD_INTERFACE="$2" \
        SOLICD_MAILBOX=client SOLICD_REASON="$3" new_dns_servers="$4" old_dns_servers= \
        "$hook" || fail "the hook failed for namespace '$1', interface $2, $3"
    cat "$work/calls"
}

# expect WANT NAMESPACE INTERFACE REASON SERVERS
expect() {
    local want=$1 got
    shift
    got=$(run_hook "$@")
    [ "$got" = "$want" ] || fail "namespace '$1', interface $2, $3 '$4': resolvectl '$got', expected '$want'"
}

# lo is the host's: watched in the host's namespace, its servers go to the host's resolver.
expect "dns lo 2001:db8::53 2001:db8::54" "" lo RESYNC "2001:db8::53 2001:db8::54"
expect "dns lo 2001:db8::53" "" lo DNS_CHANGED "2001:db8::53"
expect "revert lo" "" lo DNS_CHANGED ""
# Another namespace's lo is not the host's, whatever its name.
expect "" blue lo RESYNC "2001:db8::53"
expect "" blue lo DNS_CHANGED ""
# Reasons without servers to hand over, and an interface the host does not have.
expect "" "" lo PREFIX_NEW "2001:db8::53"
expect "" "" "nosuch$$" DNS_CHANGED "2001:db8::53"
# systemd-resolved not running.
rmdir /run/systemd/resolve
expect "" "" lo DNS_CHANGED "2001:db8::53"
echo "PASS: the resolved hook acts for the host's own namespace only"

#!/usr/bin/env bash
# solicd@.service passes `systemd-analyze verify` without a word, keeps the restart and
# capability contract, and its exposure stays at 2.3 or below in `systemd-analyze security`.
source "$(dirname "$0")/packaging_lib.sh"
need_tools systemd-analyze

unit_src="$SOLICD_BUILD/packaging/solicd@.service"
page="$SOLICD_BUILD/packaging/man/solicd.8"
[ -f "$unit_src" ] && [ -f "$page" ] || fail "$unit_src or $page not built"

# A scratch root holding the unit where systemd looks for it, the daemon its ExecStart names and
# the manual page its Documentation names.
root=$work/root
unitdir=$root$prefix/lib/systemd/system
mkdir -p "$unitdir" "$root/usr/share/man/man8"
cp "$unit_src" "$unitdir/"
cp "$page" "$root/usr/share/man/man8/"
exec_path=$(sed -n 's/^ExecStart=\([^ ]*\) .*/\1/p' "$unit_src")
[ "$exec_path" = "$prefix/sbin/solicd" ] || fail "ExecStart runs '$exec_path', not $prefix/sbin/solicd"
mkdir -p "$root$(dirname "$exec_path")"
cp "$SOLICD_BUILD/bin/solicd" "$root$exec_path"

instance=solicd@blue.service
# --recursive-errors=no: the scratch root has no sysinit.target and the like to depend on.
if ! MANPATH=$root/usr/share/man systemd-analyze verify --root="$root" --recursive-errors=no \
    "$instance" >"$work/verify.log" 2>&1 || [ -s "$work/verify.log" ]; then
    cat "$work/verify.log"
    fail "systemd-analyze verify $instance is not clean"
fi

# The contract the daemon relies on, literally.
expect_line() {
    grep -qxF -- "$1" "$unitdir/solicd@.service" || fail "the unit lacks the line: $1"
}
expect_line "EnvironmentFile=/etc/solicd/%i.conf"
expect_line 'ExecStart='"$prefix"'/sbin/solicd --namespace=${NAMESPACE} --interface=${INTERFACE} --source=${SOURCE} --destination=${DESTINATION}'
expect_line "Restart=always"
expect_line "RestartForceExitStatus=70"
expect_line "CapabilityBoundingSet=CAP_NET_RAW CAP_SYS_ADMIN"
expect_line "AmbientCapabilities=CAP_NET_RAW CAP_SYS_ADMIN"
expect_line "ReadWritePaths=/run/lmx"
expect_line "RestrictAddressFamilies=AF_UNIX AF_INET6 AF_NETLINK"

# 23 is an exposure of 2.3: weakening any setting of the unit raises it above.
if ! systemd-analyze security --root="$root" --offline=true --threshold=23 "$instance" \
    >"$work/security.log" 2>&1; then
    grep -E '✗|Overall' "$work/security.log"
    fail "the unit's exposure rose above 2.3"
fi
echo "PASS: $instance verifies cleanly; $(grep -o 'Overall exposure level.*' "$work/security.log")"

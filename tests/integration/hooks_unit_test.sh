#!/usr/bin/env bash
# solicd-hooks@.service passes `systemd-analyze verify` without a word and runs the hooks client
# from the instance file solicd@.service reads, after solicd, writing only where the shipped
# hooks write.
source "$(dirname "$0")/packaging_lib.sh"
need_tools systemd-analyze

unit_src="$SOLICD_BUILD/packaging/solicd-hooks@.service"
[ -f "$unit_src" ] || fail "$unit_src not built"

# A scratch root holding the units, the program the Exec line names and its manual page.
root=$work/root
unitdir=$root$prefix/lib/systemd/system
mkdir -p "$unitdir" "$root/usr/share/man/man1" "$root$prefix/bin"
cp "$unit_src" "$SOLICD_SRC/packaging/solicd.target" "$SOLICD_BUILD/packaging/solicd@.service" "$unitdir/"
cp "$SOLICD_BUILD/packaging/man/solicctl.1" "$root/usr/share/man/man1/"
cp "$SOLICD_BUILD/bin/solicctl" "$root$prefix/bin/"

instance=solicd-hooks@blue.service
verify_unit "$root" "$instance"

expect_line() {
    grep -qxF -- "$1" "$unitdir/solicd-hooks@.service" || fail "the unit lacks the line: $1"
}
expect_line "EnvironmentFile=/etc/solicd/%i.conf"
expect_line 'ExecStart='"$prefix"'/bin/solicctl hooks ${DESTINATION} --daemon=${SOURCE} --namespace=${NAMESPACE} --interface=${INTERFACE} --state=/run/solicd-hooks/%i/dns'
expect_line "RuntimeDirectory=solicd-hooks/%i"
expect_line "RuntimeDirectoryPreserve=yes"
expect_line "After=solicd@%i.service"
expect_line "PartOf=solicd.target"
expect_line "ProtectSystem=strict"
expect_line "ReadWritePaths=/run/lmx /etc/netns"

# The command line the unit runs is one solicctl accepts, an empty SOURCE included, in a namespace
# and in the host's own (an empty NAMESPACE): it gets as far as looking for the mailbox directory
# (none here), not a usage error.
for ns in blue ""; do
    status=0
    "$SOLICD_BUILD/bin/solicctl" --dir "$work/none" hooks client --daemon= --namespace="$ns" --interface=eth0 \
        --state="$work/dns" 2>"$work/hooks.err" || status=$?
    [ "$status" -eq 1 ] && grep -q "^solicctl: no mailbox directory $work/none " "$work/hooks.err" ||
        fail "solicctl refuses the unit's options with NAMESPACE='$ns': status $status, $(cat "$work/hooks.err")"
done
echo "PASS: $instance verifies cleanly and runs the hooks client from the instance file"

#!/usr/bin/env bash
# solicd-check-config as the unit runs it: silent with status 0 on a file that can start (the
# shipped example among them), one line per mistake in the form FILE:LINE: ... with status 1
# otherwise, and status 2 for a usage error.
source "$(dirname "$0")/packaging_lib.sh"

checker="$SOLICD_BUILD/bin/solicd-check-config"
[ -x "$checker" ] || fail "$checker not built"

# run NAME ARGS...: the checker's stdout in NAME.out, stderr in NAME.err, status in $status.
run() {
    local name=$1
    shift
    status=0
    "$checker" "$@" >"$work/$name.out" 2>"$work/$name.err" || status=$?
}
expect() {
    local name=$1 want_status=$2 want_err=$3
    [ "$status" -eq "$want_status" ] || fail "$name: status $status, not $want_status: $(cat "$work/$name.err")"
    [ ! -s "$work/$name.out" ] || fail "$name: wrote to stdout: $(cat "$work/$name.out")"
    if [ "$(cat "$work/$name.err")" != "$want_err" ]; then
        diff -u <(echo "$want_err") "$work/$name.err" || true
        fail "$name: stderr is not as expected"
    fi
}

run example "$SOLICD_SRC/packaging/instance.conf.example"
expect example 0 ""

printf 'NAMESPACE=blue\nINTERFACE=eth0\nDESTINATION=blue-client\n' >"$work/blue.conf"
printf '# lab\nNAMESPACE=lab\nINTERFACE=enp0s31f6-uplink\nDESTINATON=lab-client\nSOURCE=lab solicd\n' \
    >"$work/lab.conf"
run two "$work/blue.conf" "$work/lab.conf"
expect two 1 "solicd-check-config: $work/lab.conf:3: INTERFACE 'enp0s31f6-uplink' is longer than 15 characters, the most the kernel keeps; give the name \`ip link\` shows
solicd-check-config: $work/lab.conf:4: unknown setting 'DESTINATON'; the settings are NAMESPACE, INTERFACE, SOURCE and DESTINATION
solicd-check-config: $work/lab.conf:5: SOURCE 'lab solicd' is not a mailbox name: use 1 to 100 of A-Z a-z 0-9 . _ -, not starting with '.'"

printf 'NAMESPACE=blue\n' >"$work/nointerface.conf"
run nointerface "$work/nointerface.conf"
expect nointerface 1 "solicd-check-config: $work/nointerface.conf: INTERFACE is not set; set it to the interface to listen on, as \`ip link\` shows it"

run missing "$work/absent.conf"
expect missing 1 "solicd-check-config: $work/absent.conf: cannot read it: No such file or directory"

run none
expect none 2 "solicd-check-config: no file given; see 'solicd-check-config --help'"
run option --bogus
expect option 2 "solicd-check-config: unknown option; see 'solicd-check-config --help'"
run help --help
[ "$status" -eq 0 ] && grep -q '^Usage: solicd-check-config FILE' "$work/help.out" || fail "--help: status $status"

echo "PASS: solicd-check-config passes good files silently and names each mistake of a bad one"

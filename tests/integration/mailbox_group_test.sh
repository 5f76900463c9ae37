#!/usr/bin/env bash
# Mailbox access by group, as the shipped tmpfiles entry sets it up: the directory root-owned,
# set-group-ID and sticky, mode 3770; the mailboxes in it 0660 of its group. A real unprivileged user runs
# solicctl against the real daemon: refused with one line that names the permission while not a
# member, served once added to the group (its own mailbox then belongs to the group too) but kept
# from removing solicd's mailbox, and refused again once removed. A group and a user of this run's own stand in for lmx and an
# operator; both go at the end, also on failure.
source "$(dirname "$0")/e2e_lib.sh"
for tool in useradd userdel groupadd groupdel gpasswd runuser systemd-tmpfiles; do
    command -v "$tool" >/dev/null || fail "$tool is missing"
done
tmpfiles_conf=${SOLICD_SRC:?}/packaging/tmpfiles.conf

GROUP=sgg$RUN
USER_NAME=sgu$RUN
remove_accounts()
{
    userdel "$USER_NAME" 2>/dev/null || true
    groupdel "$GROUP" 2>/dev/null || true
}
trap 'remove_accounts; cleanup' EXIT
groupadd --system "$GROUP"
useradd --no-create-home --no-user-group --gid nogroup --shell /usr/sbin/nologin "$USER_NAME"

# The user must reach the directory: the scratch directory is private otherwise.
chmod 0755 "$WORK"
# The shipped entry for /run/lmx, applied to this run's directory and group.
read -r type path mode owner group _ < <(grep -v '^#' "$tmpfiles_conf" | grep -v '^$')
[ "$type $path $mode $owner $group" = "d /run/lmx 3770 root lmx" ] ||
    fail "the shipped tmpfiles entry is '$type $path $mode $owner $group'"
echo "$type $LMX_DIR $mode $owner $GROUP -" >"$WORK/tmpfiles.conf"
systemd-tmpfiles --create "$WORK/tmpfiles.conf" || fail "systemd-tmpfiles refused the entry"
[ "$(stat -c '%a %U %G' "$LMX_DIR")" = "3770 root $GROUP" ] || fail "$LMX_DIR is $(stat -c '%a %U %G' "$LMX_DIR")"

lab_up
start_solicd
wait_ready 20
[ "$(stat -c '%a %U %G' "$LMX_DIR/$DAEMON_MBOX")" = "660 root $GROUP" ] ||
    fail "solicd's mailbox is $(stat -c '%a %U %G' "$LMX_DIR/$DAEMON_MBOX"), not 660 root $GROUP"

# The user's solicctl: this run's directory, and sanitizer reports (in a sanitized build) on
# stderr, which the user can write, rather than in root's report files.
user_solicctl=(runuser -u "$USER_NAME" -- env -u ASAN_OPTIONS -u UBSAN_OPTIONS LMX_DIR="$LMX_DIR" "$SOLICCTL")
# as_user NAME ARGS...: solicctl as the user, stdout in NAME.out, stderr in NAME.err; its status.
as_user()
{
    local name=$1 status=0
    shift
    "${user_solicctl[@]}" "$@" >"$WORK/$name.out" 2>"$WORK/$name.err" || status=$?
    return $status
}
refused="solicctl: permission denied: you may not use the mailboxes in $LMX_DIR; join group $GROUP (then log in again) or run as root"
# Every command, ls and watch included, names the permission rather than finding nothing.
expect_refused()
{
    local status args
    for args in "show $DAEMON_MBOX" "status $DAEMON_MBOX" "ls" "watch $CLIENT_MBOX --timeout 1"; do
        status=0
        # shellcheck disable=SC2086 # the words of one command line
        as_user "$1" $args || status=$?
        [ "$status" -eq 1 ] || fail "$2: solicctl $args ended with $status, not 1"
        [ "$(cat "$WORK/$1.err")" = "$refused" ] ||
            fail "$2: solicctl $args said '$(cat "$WORK/$1.err")', not '$refused'"
        [ ! -s "$WORK/$1.out" ] || fail "$2: solicctl $args printed $(cat "$WORK/$1.out")"
    done
    [ ! -e "$LMX_DIR/$CLIENT_MBOX" ] || fail "$2: a refused watch left $LMX_DIR/$CLIENT_MBOX"
}

expect_refused outsider "not a member"

gpasswd --add "$USER_NAME" "$GROUP" >/dev/null
as_user member show "$DAEMON_MBOX" || fail "a member's solicctl show failed: $(cat "$WORK/member.err")"
grep -q '^Counters:' "$WORK/member.out" || fail "a member's show has no counters: $(cat "$WORK/member.out")"
[ ! -s "$WORK/member.err" ] || fail "a member's show wrote to stderr: $(cat "$WORK/member.err")"
as_user member-ls ls || fail "a member's solicctl ls failed: $(cat "$WORK/member-ls.err")"
grep -qx "$DAEMON_MBOX" "$WORK/member-ls.out" || fail "a member's ls lacks $DAEMON_MBOX: $(cat "$WORK/member-ls.out")"
as_user member-status status "$DAEMON_MBOX" || fail "a member's solicctl status failed: $(cat "$WORK/member-status.err")"
grep -q "^$DAEMON_MBOX: 0 routers, 0 prefixes, 0 DNS servers active\$" "$WORK/member-status.out" ||
    fail "a member's status does not start as expected: $(cat "$WORK/member-status.out")"
# A member may not remove solicd's mailbox (to make one of that name, speaking as solicd).
status=0
runuser -u "$USER_NAME" -- rm -f "$LMX_DIR/$DAEMON_MBOX" 2>"$WORK/rm.err" || status=$?
[ "$status" -ne 0 ] && [ -S "$LMX_DIR/$DAEMON_MBOX" ] || fail "a member removed solicd's mailbox"
# A member may be the client: its mailbox belongs to the group and solicd sends it the cache.
"${user_solicctl[@]}" watch "$CLIENT_MBOX" --json --count 1 --timeout 20 >"$WORK/watch.out" 2>"$WORK/watch.err" &
WATCH_PID=$!
PIDS+=("$WATCH_PID")
wait_socket "$LMX_DIR/$CLIENT_MBOX" 5
[ "$(stat -c '%a %U %G' "$LMX_DIR/$CLIENT_MBOX")" = "660 $USER_NAME $GROUP" ] ||
    fail "the member's mailbox is $(stat -c '%a %U %G' "$LMX_DIR/$CLIENT_MBOX"), not 660 $USER_NAME $GROUP"
send_ra "$LL_R" lifetime=1800
wait_exit "$WATCH_PID" 20
[ "$EXIT_STATUS" -eq 0 ] || fail "the member's watch ended with $EXIT_STATUS: $(cat "$WORK/watch.err")"
expect_json "$WORK/watch.out" 1 '.kind == "router_updated"' "a router update"

gpasswd --delete "$USER_NAME" "$GROUP" >/dev/null
expect_refused removed "removed from the group"
alive "$SOLICD_PID" || fail "solicd ended"
echo "PASS: group $GROUP grants solicctl show, status, ls and watch to a member and only to a member"

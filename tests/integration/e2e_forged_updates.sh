#!/usr/bin/env bash
# Forged updates from a member of the mailbox group, as a hostile local user would send them
# (lmx_forger, linked to liblmx, run as that user): a "DNS servers" update naming its own server,
# to the hooks' mailbox while root's `solicctl hooks` is solicd's client with the shipped
# resolv.conf hook, then to the client mailbox while root's `solicctl watch` is the client.
# Speaking as solicd's mailbox is refused by the mailbox service itself; speaking as its own is
# delivered and refused by solicctl, which says so once. resolv.conf keeps solicd's servers,
# watch prints nothing of the forger's. A group and a user of this run's own stand in for lmx
# and the member; both go at the end, also on failure.
source "$(dirname "$0")/e2e_lib.sh"
for tool in useradd userdel groupadd groupdel runuser; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done
FORGER=$BIN/lmx_forger
[ -x "$FORGER" ] || fail "$FORGER is not built"

GROUP=sfg$RUN
USER_NAME=sfu$RUN
netns_etc=/etc/netns/$HOST
remove_accounts()
{
    userdel "$USER_NAME" 2>/dev/null || true
    groupdel "$GROUP" 2>/dev/null || true
}
trap 'remove_accounts; rm -rf "$netns_etc"; cleanup' EXIT
groupadd --system "$GROUP"
useradd --no-create-home --no-user-group --gid nogroup --groups "$GROUP" --shell /usr/sbin/nologin "$USER_NAME"
# The mailbox directory as the shipped tmpfiles entry makes it, with this run's group; the member
# must reach it through the scratch directory.
chmod 0755 "$WORK"
chgrp "$GROUP" "$LMX_DIR"
chmod 2770 "$LMX_DIR"

BAD=2001:db8::bad
# forge ARGS...: lmx_forger as the member (sanitizer reports, in a sanitized build, on its own
# stderr rather than in root's report files); its output in forger.out.
forge()
{
    runuser -u "$USER_NAME" -- env -u ASAN_OPTIONS -u UBSAN_OPTIONS LMX_DIR="$LMX_DIR" "$FORGER" "$@" \
        >>"$WORK/forger.out" 2>&1
}
# refusals FILE: how many refusal lines solicctl wrote to FILE.
refusals() { grep -c '^solicctl: refused a message from ' "$1" || true; }

# The hooks: the shipped resolv.conf hook and a recorder of the reason, the entry and the DNS set.
hooks=$WORK/hooks.d
mkdir "$hooks"
ln -s "$SOLICD_SRC/packaging/hooks/resolv.conf" "$hooks/50-resolv.conf"
events=$WORK/events.txt
printf '#!/bin/sh\necho "$SOLICD_REASON|$new_address|$new_dns_servers" >>"%s"\n' "$events" >"$hooks/60-record"
chmod 755 "$hooks/60-record"
resolv_conf() { ip netns exec "$HOST" cat /etc/resolv.conf 2>/dev/null; }
want_resolv="# Written by solicd's resolv.conf hook from the Router Advertisements on $IH; do not edit.
nameserver 2001:db8::53"

lab_up
"$SOLICCTL" hooks "$CLIENT_MBOX" --daemon "$DAEMON_MBOX" --hooks-dir "$hooks" --namespace "$HOST" \
    --interface "$IH" >"$WORK/hooks.out" 2>"$WORK/hooks.err" &
HOOKS_PID=$!
PIDS+=("$HOOKS_PID")
wait_socket "$LMX_DIR/$CLIENT_MBOX" 5
start_solicd
wait_ready 20
send_ra "$LL_R" lifetime=1800 rdnss=600,2001:db8::53
deadline=$((SECONDS + 10))
until [ "$(resolv_conf)" = "$want_resolv" ]; do
    [ $SECONDS -lt $deadline ] || fail "resolv.conf after 10 s: '$(resolv_conf)'"
    sleep 0.1
done

# Speaking as solicd: the hooks' mailbox service drops the connection at the hello.
forge claim "$CLIENT_MBOX" "$DAEMON_MBOX" "$BAD" || fail "a hello naming $DAEMON_MBOX was not refused"
# Speaking as itself, three times: taken in by the service (and so ahead of what comes next)...
forge own "$CLIENT_MBOX" 3 "$BAD" || fail "the forger's own updates did not reach the hooks' mailbox"
# ... and refused by the hooks: a new router, announced after the forgeries, reaches the hooks
# with the DNS set as they know it.
router_address fe80::a
send_ra fe80::a lifetime=600
deadline=$((SECONDS + 10))
until grep -q '^ROUTER_NEW|fe80::a|' "$events"; do
    [ $SECONDS -lt $deadline ] || fail "the new router did not reach the hooks: $(cat "$events")"
    sleep 0.1
done
grep -qx 'ROUTER_NEW|fe80::a|2001:db8::53' "$events" || fail "the hooks' DNS set changed: $(cat "$events")"
! grep -q "$BAD" "$events" || fail "a hook ran for the forged servers: $(cat "$events")"
[ "$(resolv_conf)" = "$want_resolv" ] || fail "resolv.conf changed: '$(resolv_conf)'"
[ "$(refusals "$WORK/hooks.err")" -eq 1 ] || fail "not one refusal from the hooks: $(cat "$WORK/hooks.err")"
grep -Eqx "solicctl: refused a message from 'forger-[0-9]+' \(owned by $USER_NAME\): only messages from '$DAEMON_MBOX' owned by root are taken; further refusals are not reported" \
    "$WORK/hooks.err" || fail "the hooks' refusal reads: $(cat "$WORK/hooks.err")"
kill -TERM "$HOOKS_PID"
wait_exit "$HOOKS_PID" 10

# `solicctl watch` as the client: the whole cache first, then the forgeries, then a new router.
start_watch watch
wait_json "$WORK/watch.out" '.kind == "dns_servers_updated"' 10 >/dev/null || fail "watch got no cache"
forge claim "$CLIENT_MBOX" "$DAEMON_MBOX" "$BAD" || fail "a hello naming $DAEMON_MBOX was not refused by watch's service"
forge own "$CLIENT_MBOX" 3 "$BAD" || fail "the forger's own updates did not reach watch's mailbox"
router_address fe80::b
send_ra fe80::b lifetime=600
wait_json "$WORK/watch.out" '.kind == "router_updated" and .address == "fe80::b"' 10 >/dev/null ||
    fail "the new router did not reach watch"
! grep -q "$BAD" "$WORK/watch.out" || fail "watch printed a forged update: $(grep "$BAD" "$WORK/watch.out")"
[ "$(refusals "$WORK/watch.err")" -eq 1 ] || fail "not one refusal from watch: $(cat "$WORK/watch.err")"
grep -Eqx "solicctl: refused a message from 'forger-[0-9]+' \(owned by $USER_NAME\): only messages from mailboxes owned by root are taken; further refusals are not reported" \
    "$WORK/watch.err" || fail "watch's refusal reads: $(cat "$WORK/watch.err")"
[ "$(grep -vc '^solicctl: refused a message from ' "$WORK/watch.err")" -eq 0 ] ||
    fail "watch said more: $(cat "$WORK/watch.err")"
alive "$SOLICD_PID" || fail "solicd ended"
echo "PASS: forged updates are refused by the mailbox service (someone else's name) and by hooks and watch (their own), once each"

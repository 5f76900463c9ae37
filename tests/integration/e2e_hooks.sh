#!/usr/bin/env bash
# `solicctl hooks` between the real daemon and real hook programs, the shipped resolv.conf hook
# among them: radvd's DNS servers, in solicd's cache when the hooks client connects, reach
# `ip netns exec NS cat /etc/resolv.conf` from the resync; an RDNSS lifetime of 0 removes one; a
# hook that fails and one that sleeps past the limit are reported and do not stop the others;
# the hooks client killed and started again resyncs the file; after a restart of solicd with a
# silent router the servers stay until its first solicitation cycle has ended (one until its own
# lifetime ends first); the old values are right across a router's expiry and a prefix's
# deprecation and expiry.
source "$(dirname "$0")/e2e_lib.sh"
command -v radvd >/dev/null || { echo "skipped: radvd is not installed (scripts/install-deps)"; exit 77; }

netns_etc=/etc/netns/$HOST
trap 'rm -rf "$netns_etc"; cleanup' EXIT

# The hooks: the shipped resolv.conf hook, a recorder, one that always fails and one that sleeps
# past the limit (ignoring SIGTERM) on the first resync.
hooks=$WORK/hooks.d
mkdir "$hooks"
ln -s "$SOLICD_SRC/packaging/hooks/resolv.conf" "$hooks/50-resolv.conf"
cat >"$hooks/60-record" <<HOOK
#!/bin/sh
printf '%s|%s|%s|%s|%s|%s|%s\n' "\$SOLICD_REASON" "\$new_address\$new_prefix" "\$new_state" "\$old_state" \
    "\$old_router_lifetime\$old_valid_lifetime/\$old_preferred_lifetime" "\$new_dns_servers" "\$old_dns_servers" \
    >>"$WORK/events.txt"
HOOK
printf '#!/bin/sh\nexit 1\n' >"$hooks/70-fails"
printf '#!/bin/sh\n[ -e "%s" ] && exit 0\ntouch "%s"\ntrap "" TERM\nsleep 30\n' "$WORK/slept" "$WORK/slept" >"$hooks/80-slow"
chmod 755 "$hooks/60-record" "$hooks/70-fails" "$hooks/80-slow"

start_hooks()
{
    "$SOLICCTL" hooks "$CLIENT_MBOX" --daemon "$DAEMON_MBOX" --hooks-dir "$hooks" --namespace "$HOST" \
        --interface "$IH" --timeout 1 >>"$WORK/hooks.out" 2>>"$WORK/hooks.err" &
    HOOKS_PID=$!
    PIDS+=("$HOOKS_PID")
    wait_socket "$LMX_DIR/$CLIENT_MBOX" 5
}

# resolv_conf: /etc/resolv.conf as the namespace's programs see it.
resolv_conf() { ip netns exec "$HOST" cat /etc/resolv.conf 2>/dev/null; }
marker="# Written by solicd's resolv.conf hook from the Router Advertisements on $IH; do not edit."

# wait_resolv SECONDS LINES...: until the namespace's resolv.conf is the marker and exactly LINES.
wait_resolv()
{
    local seconds=$1 want
    shift
    want=$(printf '%s\n' "$marker" "$@")
    local deadline=$((SECONDS + seconds))
    until [ "$(resolv_conf)" = "$want" ]; do
        [ $SECONDS -lt $deadline ] || fail "resolv.conf after $seconds s: '$(resolv_conf)', not '$want'"
        sleep 0.1
    done
}

lab_up
start_radvd "
    AdvSendAdvert on;
    MinRtrAdvInterval 3;
    MaxRtrAdvInterval 4;
    AdvDefaultLifetime 600;
    prefix 2001:db8:1::/64 {
        AdvOnLink on;
        AdvAutonomous on;
    };
    RDNSS 2001:db8::53 2001:db8::54 {
        AdvRDNSSLifetime 600;
    };"
start_solicd
wait_ready 20
wait_show "address: 2001:db8::54" 20
# The hooks client after the servers are known: the whole cache pushed on its connection is what
# its first resync runs with, however fast radvd answered.
start_hooks
wait_resolv 10 "nameserver 2001:db8::53" "nameserver 2001:db8::54"
[ "$(stat -c %a "$netns_etc/resolv.conf")" = 644 ] || fail "resolv.conf has mode $(stat -c %a "$netns_etc/resolv.conf")"
deadline=$((SECONDS + 10))
until grep -q "80-slow for RESYNC ran past 1 s and was ended" "$WORK/hooks.err"; do
    [ $SECONDS -lt $deadline ] || fail "the slow hook was not reported"
    sleep 0.2
done
grep -q "^solicctl: hook 70-fails for RESYNC failed with exit status 1$" "$WORK/hooks.err" ||
    fail "the failing hook was not reported"
grep -q "^RESYNC||||/|2001:db8::53 2001:db8::54|$" "$WORK/events.txt" || fail "no RESYNC with both servers"

# A second router: it expires after 2 s; its prefix is deprecated after 2 s and expires after 6 s.
# radvd goes first, without its goodbye RA, and before the address exists that it would take up.
kill -KILL "$RADVD_PID"
wait "$RADVD_PID" 2>/dev/null || true
router_address fe80::a
send_ra fe80::a lifetime=2 prefix=2001:db8:dead::/64,6,2 rdnss=0,2001:db8::54
wait_resolv 10 "nameserver 2001:db8::53"
events=$WORK/events.txt
deadline=$((SECONDS + 15))
until grep -q "^PREFIX_EXPIRED|2001:db8:dead::|" "$events"; do
    [ $SECONDS -lt $deadline ] || fail "no PREFIX_EXPIRED: $(cat "$events")"
    sleep 0.2
done
grep -q "^DNS_CHANGED||||/|2001:db8::53|2001:db8::53 2001:db8::54$" "$events" || fail "no DNS_CHANGED to 53 alone"
grep -q "^ROUTER_NEW|fe80::a|STATE_NEW||/|" "$events" || fail "no ROUTER_NEW for fe80::a"
grep -q "^ROUTER_EXPIRED|fe80::a|STATE_EXPIRED|STATE_NEW|2/|" "$events" ||
    fail "ROUTER_EXPIRED without the old values: $(grep fe80::a "$events")"
grep -q "^PREFIX_EXPIRED|2001:db8:dead::|STATE_EXPIRED|STATE_NEW|6/2|" "$events" ||
    fail "PREFIX_EXPIRED without the old values: $(grep dead "$events")"

# The hooks client killed and started again: the file is written afresh from the push.
kill -KILL "$HOOKS_PID"
wait "$HOOKS_PID" 2>/dev/null || true
printf '%s\nnameserver 2001:db8::99\n' "$marker" >"$netns_etc/resolv.conf"
start_hooks
wait_resolv 10 "nameserver 2001:db8::53"

# solicd restarted, with nothing on the link to answer its solicitations (radvd is gone, the
# crafted router does not answer): its push is empty, but the servers stay until its first
# solicitation cycle has ended, 56 only while its own lifetime lasts.
send_ra fe80::a lifetime=600 rdnss=10,2001:db8::56
wait_resolv 10 "nameserver 2001:db8::53" "nameserver 2001:db8::56"
kill -TERM "$SOLICD_PID"
wait "$SOLICD_PID" 2>/dev/null || true
deadline=$((SECONDS + 5))
until grep -q "'$DAEMON_MBOX' ended; waiting for it to come back" "$WORK/hooks.err"; do
    [ $SECONDS -lt $deadline ] || fail "the end of solicd was not noticed"
    sleep 0.1
done
before=$(grep -c '^RESYNC' "$events")
started=$SECONDS
start_solicd
wait_ready 20
deadline=$((SECONDS + 10))
until [ "$(grep -c '^RESYNC' "$events")" -gt "$before" ]; do
    [ $SECONDS -lt $deadline ] || fail "no RESYNC after solicd came back"
    sleep 0.2
done
tail -n 1 "$events" | grep -qx "RESYNC||||/|2001:db8::53 2001:db8::56|2001:db8::53 2001:db8::56" ||
    fail "the RESYNC after the restart did not hold the servers: $(tail -n 1 "$events")"
wait_resolv 1 "nameserver 2001:db8::53" "nameserver 2001:db8::56"
# 56's lifetime ends first, then the cycle: 14 to 15 s after the mailbox appeared.
wait_resolv 12 "nameserver 2001:db8::53"
grep -q "^DNS_CHANGED||||/|2001:db8::53|2001:db8::53 2001:db8::56$" "$events" || fail "no DNS_CHANGED without 56"
deadline=$((SECONDS + 20))
until [ ! -e "$netns_etc/resolv.conf" ]; do
    [ $SECONDS -lt $deadline ] || fail "the held server stayed past the cycle: $(cat "$netns_etc/resolv.conf")"
    sleep 0.1
done
held=$((SECONDS - started))
[ "$held" -ge 13 ] || fail "the held server went after $held s, before the first solicitation cycle ended"
tail -n 1 "$events" | grep -qx "DNS_CHANGED||||/||2001:db8::53" || fail "then no DNS_CHANGED to none: $(tail -n 1 "$events")"

# A file solicd did not write is left alone.
printf 'nameserver 192.0.2.1\n' >"$netns_etc/resolv.conf"
send_ra fe80::a lifetime=600 rdnss=600,2001:db8::55
deadline=$((SECONDS + 5))
until grep -q "was not written by solicd; left alone" "$WORK/hooks.err"; do
    [ $SECONDS -lt $deadline ] || fail "the hook did not leave a foreign file alone"
    sleep 0.1
done
[ "$(cat "$netns_etc/resolv.conf")" = "nameserver 192.0.2.1" ] || fail "a foreign resolv.conf was changed"

alive "$HOOKS_PID" || fail "solicctl hooks ended"
echo "PASS"

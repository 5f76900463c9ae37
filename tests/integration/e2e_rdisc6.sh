#!/usr/bin/env bash
# rdisc6 as an independent reader: the very RA that rdisc6 prints, solicd turns into the same
# router lifetime, reachable time, retransmit timer, M and O flags, prefixes with their flags and
# lifetimes, and DNS servers with their lifetime. Once for a crafted RA (infinite lifetimes, two
# RDNSS options, and a /48 prefix that rdisc6 shows but solicd ignores and counts), once for
# radvd's own RA.
source "$(dirname "$0")/e2e_lib.sh"
command -v rdisc6 >/dev/null || { echo "skipped: rdisc6 is not installed (ndisc6, scripts/install-deps)"; exit 77; }
command -v radvd >/dev/null || { echo "skipped: radvd is not installed (scripts/install-deps)"; exit 77; }
command -v ss >/dev/null || { echo "skipped: ss is not installed (iproute2)"; exit 77; }

lab_up
router_address fe80::a
start_watch watch
start_solicd
wait_ready 20

# listen NAME: rdisc6 in solicd's namespace, sending no solicitation, printing the next RA.
listen()
{
    ip netns exec "$HOST" rdisc6 --no-solicit --single --numeric --retry 1 --wait 15000 "$IH" \
        >"$WORK/$1.rdisc6.out" 2>&1 &
    RDISC6_PID=$!
    PIDS+=("$RDISC6_PID")
    local i
    for i in $(seq 1 50); do
        grep -q '"rdisc6"' <<<"$(ip netns exec "$HOST" ss -H -w -a -p 2>/dev/null)" && return 0
        sleep 0.1
    done
    fail "rdisc6 did not open its socket"
}

# rdisc6_view FILE: rdisc6's printout in one line per record, numbers from their hex forms.
rdisc6_view()
{
    local line key value num managed=0 other=0 lifetime reachable retrans prefix="" onlink auto valid pref
    local servers=()
    flush_prefix()
    {
        [ -z "$prefix" ] || echo "prefix $prefix onlink=$onlink autonomous=$auto valid=$valid preferred=$pref"
        prefix=""
    }
    while IFS= read -r line; do
        key=$(sed -E 's/^ *//; s/ *:.*//' <<<"$line")
        value=$(sed -E 's/^[^:]*: *//' <<<"$line")
        num=$(grep -oE -m1 '0x[0-9a-f]+' <<<"$value" || true)
        [ -z "$num" ] || num=$((num))
        case "$key" in
            "Stateful address conf.") [ "$value" = Yes ] && managed=1 ;;
            "Stateful other conf.") [ "$value" = Yes ] && other=1 ;;
            "Router lifetime") lifetime=$num ;;
            "Reachable time") reachable=$num ;;
            "Retransmit time") retrans=$num ;;
            "Prefix") flush_prefix; prefix=$value ;;
            "On-link") onlink=$([ "$value" = Yes ] && echo 1 || echo 0) ;;
            "Autonomous address conf.") auto=$([ "$value" = Yes ] && echo 1 || echo 0) ;;
            "Valid time") valid=$num ;;
            "Pref. time") pref=$num ;;
            "Recursive DNS server") flush_prefix; servers+=("$value") ;;
            "DNS servers lifetime" | "DNS server lifetime")
                for value in "${servers[@]}"; do echo "dns $value lifetime=$num"; done
                servers=()
                ;;
        esac
    done <"$1"
    flush_prefix
    echo "router lifetime=$lifetime reachable=$reachable retrans=$retrans managed=$managed other=$other"
}

# solicd_view SOURCE NET_PREFIX: the same view of solicd's records of one round: the router from
# the routers answer, networks and DNS servers (those starting with NET_PREFIX) from the client.
solicd_view()
{
    "$SOLICCTL" routers "$DAEMON_MBOX" --json | jq -r --arg a "$1" '.routers[] | select(.address == $a) |
        "router lifetime=\(.routerLifetime) reachable=\(.reachableTime) retrans=\(.retransTimer) " +
        "managed=\((.flags / 2 | floor) % 2) other=\((.flags / 4 | floor) % 2)"'
    jq -rs --arg p "$2" '[.[] | select(.kind == "network_updated" and (.prefix | startswith($p)))] |
        group_by(.prefix) | map(last)[] |
        "prefix \(.prefix)/\(.prefixLength) onlink=\((.flags / 16 | floor) % 2) " +
        "autonomous=\((.flags / 32 | floor) % 2) valid=\(.validLifetime) preferred=\(.preferredLifetime)"' \
        "$WORK/watch.out"
    jq -rs --arg p "$2" '[.[] | select(.kind == "dns_servers_updated")] | last | .servers[] |
        select(.address | startswith($p)) | "dns \(.address) lifetime=\(.lifetime)"' "$WORK/watch.out"
}

# compare NAME NET_PREFIX LAST_DNS_SERVER [SOURCE]: once solicd has the round's last DNS server,
# its view of the router rdisc6 heard (from SOURCE, when given) equals rdisc6's, a /64 prefix
# being all that solicd takes.
compare()
{
    wait_exit "$RDISC6_PID" 20
    [ "$EXIT_STATUS" = 0 ] || fail "rdisc6 saw no RA"
    local source
    source=$(awk '$1 == "from" {print $2}' "$WORK/$1.rdisc6.out")
    [ -n "$source" ] && [ "$source" = "${4:-$source}" ] || fail "rdisc6's RA did not come from ${4:-a router}"
    wait_json "$WORK/watch.out" ".kind == \"dns_servers_updated\" and any(.servers[]; .address == \"$3\")" 10 \
        >/dev/null || fail "solicd did not forward the RA's DNS servers"
    rdisc6_view "$WORK/$1.rdisc6.out" | awk '$1 != "prefix" || $2 ~ /\/64$/' |
        sort >"$WORK/$1.rdisc6.view"
    solicd_view "$source" "$2" | sort >"$WORK/$1.solicd.view"
    [ "$(grep -c . "$WORK/$1.rdisc6.view")" -ge 4 ] || fail "rdisc6's view of $1 is incomplete"
    diff -u "$WORK/$1.rdisc6.view" "$WORK/$1.solicd.view" >"$WORK/$1.diff.out" || fail "$1: views differ"
}

# ---- A crafted RA.
listen crafted
send_ra fe80::a flags=M lifetime=1234 reachable=23456 retrans=789 \
    prefix=2001:db8:11::/64,86400,14400,LA prefix=2001:db8:12::/64,inf,inf,L prefix=2001:db8:13::/64,7200,0,A \
    prefix=2001:db8:14::/48,3600,1800 rdnss=900,2001:db8:1::53,2001:db8:1::54 rdnss=inf,2001:db8:1::55
compare crafted 2001:db8:1 2001:db8:1::55 fe80::a
grep -q '^prefix 2001:db8:14::/48 ' <(rdisc6_view "$WORK/crafted.rdisc6.out") || fail "rdisc6 did not show the /48"
show_has 'prefixAccepted: 3, prefixIgnored: 1}' ||
    fail "solicd did not count the /48 as ignored"

# ---- radvd's RA (its first one, sent as it starts).
listen radvd
start_radvd "
    AdvSendAdvert on;
    MinRtrAdvInterval 200;
    MaxRtrAdvInterval 600;
    AdvOtherConfigFlag on;
    AdvDefaultLifetime 9000;
    AdvReachableTime 45000;
    AdvRetransTimer 2500;
    prefix 2001:db8:21::/64 {
        AdvValidLifetime infinity;
        AdvPreferredLifetime infinity;
    };
    prefix 2001:db8:22::/64 {
        AdvOnLink off;
        AdvValidLifetime 600;
        AdvPreferredLifetime 300;
    };
    RDNSS 2001:db8:2::53 {
        AdvRDNSSLifetime infinity;
    };"
# radvd picks one of the interface's link-local addresses as its source.
compare radvd 2001:db8:2 2001:db8:2::53

alive "$SOLICD_PID" || fail "solicd ended"
echo "PASS"

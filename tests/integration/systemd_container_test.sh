#!/usr/bin/env bash
# The units under a real systemd, on a fresh Debian 12: a container booted by systemd-nspawn from a
# minimal root (debootstrap), the packages built from a clean clone (packages_build.sh, the CTest
# fixture before this test) installed into it with apt, and a router with radvd in a network
# namespace made inside the container. Checked:
# - every path of the units' sandbox settings exists after the install (a fresh host has no
#   /etc/netns of its own);
# - solicd@NAME is activating while it waits for a link-local address and becomes active only when
#   ready, and `systemctl status` shows its status lines;
# - a typo in an instance file is reported once and the unit is not restarted;
# - solicd-hooks@NAME starts and writes the namespace's resolv.conf;
# - `systemctl restart solicd@NAME` with the router silent leaves that file in place, and so does a
#   reinstall of the package, which restarts solicd and the hooks both;
# - on a failure the journal holds the stderr mirror's ERROR line above the restart request;
# - `systemctl stop` ends solicd and the hooks cleanly, at once.
#
# The minimal root costs a download of about 40 s, once: it is kept in /var/cache/solicd-test
# (outside every build tree, so a clean clone does not lose it), named after the suite and the
# packages it holds, and never written to: each run boots an overlay of its own on top of it,
# removed at the end. The test skips, saying so, only when debootstrap cannot reach the archive
# (SOLICD_TEST_MIRROR names another one).
source "$(dirname "$0")/packaging_lib.sh"
need_root "boot a container"
need_tools debootstrap systemd-nspawn nsenter wget flock mount umount sha256sum

pkgdir=$SOLICD_BUILD/test-packages
[ -f "$pkgdir/printed" ] || fail "no packages in $pkgdir; packages_build.sh makes them"
arch=$(dpkg --print-architecture)

# ---- The minimal root, made once ----
suite=bookworm
mirror=${SOLICD_TEST_MIRROR:-http://deb.debian.org/debian}
# What the tests need beside the minimal system: systemd as init, the bus, ip, radvd, and the
# libraries the packages depend on (so that installing them needs no download).
include=systemd,systemd-sysv,dbus,iproute2,radvd,libglib2.0-0,liblttng-ust1
cache=/var/cache/solicd-test
root=$cache/$suite-$(printf '%s %s' "$suite" "$include" | sha256sum | cut -c1-12)
mkdir -p "$cache"
if [ ! -e "$root/.complete" ]; then
    if ! wget -q -T 20 -t 2 -O /dev/null "$mirror/dists/$suite/Release"; then
        echo "skipped: debootstrap cannot reach the archive $mirror (set SOLICD_TEST_MIRROR to another)"
        exit 77
    fi
    # One run makes it, others wait for it; it appears whole or not at all.
    (
        flock 9
        if [ ! -e "$root/.complete" ]; then
            staging=$(mktemp -d "$cache/.staging.XXXXXX")
            debootstrap --variant=minbase --include="$include" "$suite" "$staging/root" "$mirror" \
                >"$work/debootstrap.log" 2>&1 || { tail -n 20 "$work/debootstrap.log"; rm -rf "$staging"; exit 1; }
            touch "$staging/root/.complete"
            rm -rf "$root"
            mv "$staging/root" "$root"
            rm -rf "$staging"
        fi
    ) 9>"$cache/lock" || fail "debootstrap of $suite into $root failed"
fi

# ---- This run's container ----
run=$(printf '%x%x' $$ $((RANDOM % 256)))
machine=solicd-test-$run
ct=$work/ct
mkdir -p "$ct/upper" "$ct/work" "$ct/root"
nspawn_pid=""
cleanup() {
    set +e
    if [ -n "$nspawn_pid" ] && kill -0 "$nspawn_pid" 2>/dev/null; then
        kill -TERM "$nspawn_pid"
        timeout 20 tail --pid="$nspawn_pid" -s 0.1 -f /dev/null || kill -KILL "$nspawn_pid"
        wait "$nspawn_pid" 2>/dev/null
    fi
    mountpoint -q "$ct/root" && umount "$ct/root"
    rm -rf "$work"
}
trap cleanup EXIT
mount -t overlay "$machine" -o "lowerdir=$root,upperdir=$ct/upper,workdir=$ct/work" "$ct/root" ||
    fail "cannot mount an overlay over $root"

# The packages, installed by apt as an operator would; a root whose libraries no longer satisfy
# them gets its package lists first.
mkdir -p "$ct/root/root/debs"
for p in solicd liblmx0 librestart0 libsoltypes0 libsolicd-tp0; do
    cp "$pkgdir/${p}_${version}_$arch.deb" "$ct/root/root/debs/" || fail "no package $p in $pkgdir"
done
install_packages='export DEBIAN_FRONTEND=noninteractive
apt-get install -y --no-install-recommends /root/debs/*.deb ||
    { apt-get update && apt-get install -y --no-install-recommends /root/debs/*.deb; }'
systemd-nspawn -q -D "$ct/root" --register=no --keep-unit --machine="$machine" sh -c "$install_packages" \
    >"$work/install.log" 2>&1 || { tail -n 30 "$work/install.log"; fail "apt-get install in the container failed"; }

# Booted with a network of its own: the test's namespaces and links live in there.
systemd-nspawn -q -D "$ct/root" --boot --register=no --keep-unit --machine="$machine" --private-network \
    >"$work/boot.log" 2>&1 &
nspawn_pid=$!
init_pid=""
deadline=$((SECONDS + 30))
until [ -n "$init_pid" ]; do
    kill -0 "$nspawn_pid" 2>/dev/null || { cat "$work/boot.log"; fail "the container did not boot"; }
    [ $SECONDS -lt $deadline ] || fail "no init in the container after 30 s"
    sleep 0.1
    init_pid=$(pgrep -P "$nspawn_pid" | head -n 1 || true)
done
# in_ct COMMAND...: COMMAND inside the container, in every namespace of its init.
in_ct() { nsenter -t "$init_pid" -a "$@"; }
deadline=$((SECONDS + 60))
until [[ "$(in_ct systemctl is-system-running 2>/dev/null)" =~ ^(running|degraded)$ ]]; do
    [ $SECONDS -lt $deadline ] || fail "the container's systemd is $(in_ct systemctl is-system-running)"
    sleep 0.2
done

# A fresh host has nothing but what the packages made (and, in /run, what the boot made of their
# tmpfiles entries).
ct_root=/proc/$init_pid/root
check_unit_paths "$ct_root" "$ct_root/lib/systemd/system/solicd@.service" \
    "$ct_root/lib/systemd/system/solicd-hooks@.service"

# unit_is UNIT PROPERTY VALUE SECONDS: until `systemctl show` gives PROPERTY the VALUE.
unit_is() {
    local deadline=$((SECONDS + $4)) value
    until value=$(in_ct systemctl show -p "$2" --value "$1") && [ "$value" = "$3" ]; do
        [ $SECONDS -lt $deadline ] || fail "$1: $2 is '$value' after $4 s, not '$3'"
        sleep 0.1
    done
}
# journal_has UNIT TEXT SECONDS: until the unit's journal has a line holding TEXT.
journal_has() {
    local deadline=$((SECONDS + $3))
    until in_ct journalctl -q -u "$1" -o cat | grep -qF -- "$2"; do
        [ $SECONDS -lt $deadline ] || fail "$1's journal lacks '$2': $(in_ct journalctl -q -u "$1" -o cat | tail -n 5)"
        sleep 0.2
    done
}
resolv=$ct/root/etc/netns/blue/resolv.conf
# resolv_is SECONDS SERVERS: until the namespace's resolv.conf names exactly SERVERS.
resolv_is() {
    local deadline=$((SECONDS + $1)) want
    want=$(printf 'nameserver %s\n' $2)
    until [ -f "$resolv" ] && [ "$(grep -v '^#' "$resolv")" = "$want" ]; do
        [ $SECONDS -lt $deadline ] || fail "resolv.conf after $1 s: '$(cat "$resolv" 2>&1)', not '$want'"
        sleep 0.1
    done
}

# A typo: reported once, never restarted. Started first; whether it restarts is looked at last.
printf 'NAMESPACE=blue\nINTERFACE=eth0\nDESTINATON=typo-client\n' >"$ct/root/etc/solicd/typo.conf"
in_ct systemctl start solicd@typo || fail "systemctl start solicd@typo failed"
typo_started=$SECONDS
journal_has solicd@typo "solicd-check-config: /etc/solicd/typo.conf:3: unknown setting 'DESTINATON'; the settings are NAMESPACE, INTERFACE, SOURCE and DESTINATION" 10

# The lab: a router and solicd's namespace, blue; solicd's end of the link is down, so that solicd
# waits for its link-local address.
in_ct ip netns add router
in_ct ip netns add blue
in_ct ip link add r0 netns router type veth peer name eth0 netns blue
for setting in router:all/forwarding=1 router:r0/accept_dad=0 blue:eth0/accept_dad=0 blue:eth0/accept_ra=0; do
    ns=${setting%%:*} key=${setting#*:}
    in_ct ip netns exec "$ns" sh -c "echo ${key#*=} >/proc/sys/net/ipv6/conf/${key%=*}"
done
in_ct ip -n router link set r0 up
cat >"$ct/root/etc/radvd-test.conf" <<'EOF'
interface r0 {
    AdvSendAdvert on;
    MinRtrAdvInterval 30;
    MaxRtrAdvInterval 60;
    prefix 2001:db8:1::/64 { };
    RDNSS 2001:db8::53 { AdvRDNSSLifetime 600; };
};
EOF
start_radvd() {
    in_ct systemd-run -q --collect --unit=test-radvd ip netns exec router radvd -n -m stderr -C /etc/radvd-test.conf \
        -p /run/test-radvd.pid || fail "radvd did not start"
}
start_radvd

# solicd: activating while it waits, active once ready; its status lines in `systemctl status`.
printf 'NAMESPACE=blue\nINTERFACE=eth0\nDESTINATION=blue-client\nSOURCE=\n' >"$ct/root/etc/solicd/blue.conf"
in_ct systemctl start --no-block solicd@blue
unit_is solicd@blue StatusText "Waiting for a link-local address on eth0" 20
[ "$(in_ct systemctl show -p ActiveState --value solicd@blue)" = activating ] ||
    fail "solicd@blue is $(in_ct systemctl show -p ActiveState --value solicd@blue) while it waits"
in_ct systemctl status solicd@blue >"$work/status.txt" || true
grep -qF 'Status: "Waiting for a link-local address on eth0"' "$work/status.txt" ||
    fail "systemctl status does not show the wait: $(cat "$work/status.txt")"
in_ct ip -n blue link set eth0 up
unit_is solicd@blue ActiveState active 20
unit_is solicd@blue StatusText "Waiting for the client mailbox blue-client" 5

# The hooks: solicd's client (solicd's default mailbox name, SOURCE being empty); the log hook too.
in_ct ln -s /usr/lib/solicd/hooks/log /etc/solicd/hooks.d/90-log
in_ct systemctl start solicd-hooks@blue || fail "solicd-hooks@blue did not start: $(in_ct systemctl status solicd-hooks@blue)"
resolv_is 20 2001:db8::53
unit_is solicd@blue StatusText "Running: 1 router, 1 prefix, 1 DNS server" 10
in_ct systemctl status solicd@blue >"$work/status.txt" || true
grep -qF 'Status: "Running: 1 router, 1 prefix, 1 DNS server"' "$work/status.txt" ||
    fail "systemctl status does not show the counts: $(cat "$work/status.txt")"

# The router silent (radvd killed, no goodbye), then solicd restarted: its first push is empty, yet
# the namespace keeps its resolver while the new solicd solicits.
in_ct systemctl kill -s KILL test-radvd
solicd_pid=$(in_ct systemctl show -p MainPID --value solicd@blue)
in_ct systemctl restart solicd@blue
unit_is solicd@blue ActiveState active 20
[ "$(in_ct systemctl show -p MainPID --value solicd@blue)" != "$solicd_pid" ] || fail "solicd@blue did not restart"
journal_has solicd-hooks@blue "'solcid.blue-eth0' ended; waiting for it to come back" 5
# held_through COUNT WHAT: until the log hook has reported COUNT RESYNCs that kept the server,
# which is still in the namespace's resolv.conf.
held_through() {
    local deadline=$((SECONDS + 10)) held
    until held=$(in_ct journalctl -q -u solicd-hooks@blue -o cat |
        grep -c ": RESYNC DNS servers 2001:db8::53 (were 2001:db8::53)$") && [ "$held" -ge "$1" ]; do
        [ $SECONDS -lt $deadline ] ||
            fail "no RESYNC holding 2001:db8::53 after $2: $(in_ct journalctl -q -u solicd-hooks@blue -o cat | tail -n 5)"
        sleep 0.2
    done
    resolv_is 0 2001:db8::53
}
held_through 1 "the restart"

# A reinstall, as an upgrade does it: solicd and the hooks restart together, and the hooks hold the
# servers from the file they keep.
hooks_pid=$(in_ct systemctl show -p MainPID --value solicd-hooks@blue)
in_ct env DEBIAN_FRONTEND=noninteractive apt-get install -y --reinstall "/root/debs/solicd_${version}_$arch.deb" \
    >"$work/reinstall.log" 2>&1 || { tail -n 20 "$work/reinstall.log"; fail "the reinstall failed"; }
unit_is solicd@blue ActiveState active 20
unit_is solicd-hooks@blue ActiveState active 20
[ "$(in_ct systemctl show -p MainPID --value solicd-hooks@blue)" != "$hooks_pid" ] ||
    fail "the reinstall did not restart solicd-hooks@blue"
held_through 2 "the reinstall"
start_radvd

# A failure: the stderr mirror's ERROR line in the journal, above the restart request.
printf 'NAMESPACE=nosuch\nINTERFACE=eth0\nDESTINATION=gone-client\n' >"$ct/root/etc/solicd/gone.conf"
in_ct systemctl start --no-block solicd@gone
journal_has solicd@gone "solicd: restart requested at src/SolApp.cpp:" 20
in_ct journalctl -q -u solicd@gone -o cat >"$work/gone.journal"
grep -B3 -m1 "^solicd: restart requested at src/SolApp.cpp:" "$work/gone.journal" |
    grep -q "^ERROR ADDR_IPV6 SocketMgr.cpp:[0-9]* init(): \[solcid.nosuch-eth0\] Unable to set namespace 'nosuch', function 'open' failed, error: No such file or directory (2)$" ||
    fail "no ERROR line above the restart request: $(cat "$work/gone.journal")"
in_ct systemctl stop solicd@gone

# Stopped: both end by themselves on SIGTERM, at once and cleanly (no failure, no time-out).
in_ct systemctl stop solicd-hooks@blue solicd@blue
for unit in solicd@blue solicd-hooks@blue; do
    unit_is "$unit" ActiveState inactive 0
    unit_is "$unit" Result success 0
    in_ct journalctl -q -u "$unit" -o cat | tail -n 2 | grep -qx "$unit.service: Deactivated successfully." ||
        fail "$unit did not end cleanly: $(in_ct journalctl -q -u "$unit" -o cat | tail -n 5)"
done

# The typo, at least one restart delay later: still the one report, never restarted.
while [ $((SECONDS - typo_started)) -lt 6 ]; do sleep 0.2; done
[ "$(in_ct journalctl -q -u solicd@typo -o cat | grep -c "unknown setting 'DESTINATON'")" -eq 1 ] ||
    fail "the typo was reported more than once: $(in_ct journalctl -q -u solicd@typo -o cat)"
unit_is solicd@typo NRestarts 0 0
unit_is solicd@typo ActiveState inactive 0
echo "PASS: solicd@ and solicd-hooks@ under systemd $(in_ct systemctl --version | sed -n '1s/^systemd \([0-9]*\).*/\1/p')" \
    "in a fresh $suite, from the packages of a clean clone"

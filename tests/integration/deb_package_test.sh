#!/usr/bin/env bash
# The Debian packages as a packager and an operator meet them. Built by `make package` in a clean
# clone of the tree (packages_build.sh, the CTest fixture before this test); lintian --pedantic
# finds no error and no warning, and no informational tag but the known ones below; each package
# holds exactly its files, with its dependencies, shlibs and ldconfig trigger. Installed with
# `apt-get install ./*.deb` on this machine: group lmx and /run/lmx root:lmx 3770 exist, every
# path of the units' sandbox settings exists, the shipped hooks are enabled by links that stay
# the operator's (one removed stays removed through a reinstall), the unit verifies, and its
# command lines (ExecCondition, then ExecStart, as systemd expands them) start solicd for a valid
# instance file, which tells a notification socket it is ready and answers solicctl from a member
# of lmx and refuses one who is not, and stop at the check for an invalid one, with one line per
# mistake. Removed and purged, no file of the packages and no hook link is left; the operator's
# instance files stay.
#
# It installs into the real system: CTest runs it alone among the tests that touch installed
# files (RESOURCE_LOCK), it will not run over solicd packages already installed, and it puts the
# machine back as it found it (packages, group lmx, /run/lmx, /etc/solicd, /etc/netns, its user
# and namespace), also when it fails.
source "$(dirname "$0")/packaging_lib.sh"
need_root "install Debian packages into this system"
need_tools dpkg-deb dpkg-architecture dpkg-parsechangelog lintian apt-get dpkg-query systemd-analyze runuser \
    useradd userdel gpasswd groupdel ip

packages=(solicd liblmx0 librestart0 libsoltypes0 libsolicd-tp0 solicd-dev)
installed_before=$(dpkg-query -W -f='${db:Status-Abbrev} ${Package}\n' "${packages[@]}" 2>/dev/null |
    awk '$1 != "un" { print $2 }' || true)
if [ -n "$installed_before" ]; then
    echo "skipped: solicd packages are on this machine already ($(echo $installed_before)); this test" \
        "installs and purges its own"
    exit 77
fi

run=$(printf '%x%x' $$ $((RANDOM % 256)))
ns=dpk$run
ifname=dp$run
peer=dq$run
instance=t$run
broken=b$run
user_name=dpu$run
daemon_mbox=solicd-$run
client_mbox=client-$run
listener="$SOLICD_BUILD/bin/notify_listener"
[ -x "$listener" ] || fail "$listener not built"

had_group=$(getent group lmx >/dev/null && echo yes || true)
had_run_lmx=$([ -e /run/lmx ] && echo yes || true)
had_etc_solicd=$([ -e /etc/solicd ] && echo yes || true)
had_etc_netns=$([ -e /etc/netns ] && echo yes || true)
pids=()
restore() {
    set +e
    local pid
    for pid in "${pids[@]}"; do
        kill -KILL "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    done
    ip netns del "$ns" 2>/dev/null
    userdel "$user_name" 2>/dev/null
    dpkg --purge "${packages[@]}" >/dev/null 2>&1
    rm -f "/etc/solicd/$instance.conf" "/etc/solicd/$broken.conf"
    [ -n "$had_etc_solicd" ] || rmdir /etc/solicd 2>/dev/null
    [ -n "$had_etc_netns" ] || rmdir /etc/netns 2>/dev/null
    [ -n "$had_group" ] || groupdel lmx 2>/dev/null
    [ -n "$had_run_lmx" ] || rm -rf /run/lmx
    rm -rf "$work"
}
trap restore EXIT

# ---- Built from a clean clone, by the fixture ----
pkgdir=$SOLICD_BUILD/test-packages
[ -f "$pkgdir/printed" ] || fail "no packages in $pkgdir; packages_build.sh makes them"

arch=$(dpkg --print-architecture)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
deb_version=$(dpkg-parsechangelog -l "$pkgdir/changelog" -S Version)
[ "$deb_version" = "$version" ] || fail "debian/changelog says $deb_version, CMake says $version"
debs=()
for p in "${packages[@]}"; do
    debs+=("$pkgdir/${p}_${version}_$arch.deb")
done
printed=$(cat "$pkgdir/printed")
[ "$printed" = "$(printf '%s\n' "${debs[@]}" | sort)" ] ||
    fail "make package printed other packages: $printed"
for deb in "${debs[@]}"; do
    [ -f "$deb" ] || fail "no $deb"
done

# ---- lintian ----
# Informational tags that stay, and why:
# - no-symbols-control-file: the libraries' interfaces are not settled (0.x); packages built
#   against them depend on this version or later through shlibs (dh_makeshlibs -V).
# - spelling-error-in-binary: the daemon's trace and help texts are fixed letter for letter,
#   misspellings included; operators and tools search for them as they are.
# - exit-in-shared-library (experimental): ending the process with status 70 is what the restart
#   library is for; the supervisor starts the daemon again.
# - executable-in-usr-lib (experimental): the shipped hooks live in /usr/lib/solicd/hooks, where
#   the links in /etc/solicd/hooks.d and the documents point; they are run by solicctl, not by
#   people, which is what the package's own directory under /usr/lib is for.
lib_file() { echo "usr/lib/$multiarch/lib$1.so.$version"; }
expected_tags="I: liblmx0: no-symbols-control-file $(lib_file lmx)
I: librestart0: no-symbols-control-file $(lib_file restart)
I: libsolicd-tp0: no-symbols-control-file $(lib_file solicd-tp)
I: libsoltypes0: no-symbols-control-file $(lib_file soltypes)
I: solicd: spelling-error-in-binary \"allows to\" \"allows one to\" [usr/sbin/solicd]
I: solicd: spelling-error-in-binary Attemp Attempt [usr/sbin/solicd]
I: solicd: spelling-error-in-binary Recevied Received [usr/sbin/solicd]
I: solicd: spelling-error-in-binary initilize initialize [usr/sbin/solicd]
I: solicd: spelling-error-in-binary initilized initialized [usr/sbin/solicd]
X: librestart0: exit-in-shared-library [$(lib_file restart)]
X: solicd: executable-in-usr-lib [usr/lib/solicd/hooks/log]
X: solicd: executable-in-usr-lib [usr/lib/solicd/hooks/resolv.conf]
X: solicd: executable-in-usr-lib [usr/lib/solicd/hooks/resolved]"
lintian --pedantic --display-info --display-experimental "$pkgdir/solicd_${version}_$arch.changes" \
    >"$work/lintian.out" 2>&1 || true
grep -v 'running with root privileges is not recommended' "$work/lintian.out" | LC_ALL=C sort >"$work/tags"
if grep -q '^[EW]: ' "$work/tags"; then
    grep '^[EW]: ' "$work/tags"
    fail "lintian reports errors or warnings"
fi
if ! diff -u <(LC_ALL=C sort <<<"$expected_tags") "$work/tags" >"$work/tags.diff"; then
    cat "$work/tags.diff"
    fail "lintian's other tags are not the known ones"
fi

# ---- What each package holds ----
contents() {
    dpkg-deb --fsys-tarfile "$1" | tar -t | grep -v '/$' | sed 's|^\./||; s|\.md\.gz$|.md|' | LC_ALL=C sort
}
expect_contents() {
    local package=$1 deb=$pkgdir/${1}_${version}_$arch.deb
    shift
    if ! diff -u <(printf '%s\n' "$@" "usr/share/doc/$package/changelog.gz" "usr/share/doc/$package/copyright" |
        LC_ALL=C sort) <(contents "$deb") >"$work/contents.diff"; then
        cat "$work/contents.diff"
        fail "$package does not hold exactly its files"
    fi
}
expect_contents solicd usr/sbin/solicd usr/sbin/solicd-check-config usr/bin/solicctl usr/bin/solicd-trace \
    lib/systemd/system/solicd@.service lib/systemd/system/solicd.target usr/lib/tmpfiles.d/solicd.conf \
    lib/systemd/system/solicd-hooks@.service usr/lib/solicd/hooks/resolv.conf usr/lib/solicd/hooks/resolved \
    usr/lib/solicd/hooks/log \
    usr/lib/sysusers.d/solicd.conf usr/share/man/man8/solicd.8.gz usr/share/man/man8/solicd-check-config.8.gz \
    usr/share/man/man1/solicctl.1.gz usr/share/man/man1/solicd-trace.1.gz usr/share/bash-completion/completions/solicctl \
    usr/share/doc/solicd/operator-guide.md usr/share/doc/solicd/client-protocol.md \
    usr/share/doc/solicd/tracing.md usr/share/doc/solicd/instance.conf.example \
    usr/share/doc/solicd/examples/node-exporter/solicd-metrics@.service \
    usr/share/doc/solicd/examples/node-exporter/solicd-metrics@.timer
for lib in lmx restart soltypes solicd-tp; do
    expect_contents "lib${lib}0" "usr/lib/$multiarch/lib$lib.so.0" "$(lib_file "$lib")"
done
expect_contents solicd-dev usr/include/solicd/SolTypes.h usr/include/solicd/SolTypesParse.h usr/include/solicd/SolIf.h usr/include/solicd/lmx.h \
    usr/include/solicd/orv_restart.h usr/lib/"$multiarch"/pkgconfig/soltypes.pc usr/lib/"$multiarch"/pkgconfig/lmx.pc \
    usr/lib/"$multiarch"/liblmx.so usr/lib/"$multiarch"/librestart.so usr/lib/"$multiarch"/libsoltypes.so \
    usr/lib/"$multiarch"/libsolicd-tp.so

field() { dpkg-deb --field "$pkgdir/${1}_${version}_$arch.deb" "$2"; }
depends=$(field solicd Depends)
for want in "liblmx0 (>= $version)" "librestart0 (>= $version)" "libsoltypes0 (>= $version)" \
    "libsolicd-tp0 (>= $version)" libsystemd0 "libglib2.0-0 " \
    "systemd | systemd-standalone-sysusers | systemd-sysusers"; do
    [[ "$depends, " == *"$want"* ]] || fail "solicd's Depends lacks $want: $depends"
done
[[ "$(field libsolicd-tp0 Depends)" == *"liblttng-ust1 "* ]] ||
    fail "libsolicd-tp0's Depends lacks liblttng-ust1: $(field libsolicd-tp0 Depends)"
[ "$(field solicd Maintainer)" = "solicd developers <maintainers@solicd.invalid>" ] ||
    fail "Maintainer is $(field solicd Maintainer)"
for lib in lmx restart soltypes solicd-tp; do
    dpkg-deb --control "$pkgdir/lib${lib}0_${version}_$arch.deb" "$work/control-$lib"
    grep -qx "lib$lib 0 lib${lib}0 (>= $version)" "$work/control-$lib/shlibs" ||
        fail "lib${lib}0's shlibs: $(cat "$work/control-$lib/shlibs")"
    grep -qx 'activate-noawait ldconfig' "$work/control-$lib/triggers" || fail "lib${lib}0 does not trigger ldconfig"
done
dpkg-deb --control "$pkgdir/solicd_${version}_$arch.deb" "$work/control"
grep -q '^Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/' \
    <(dpkg-deb --fsys-tarfile "$pkgdir/solicd_${version}_$arch.deb" | tar -xO ./usr/share/doc/solicd/copyright) ||
    fail "the copyright file is not machine-readable"

# ---- Install with apt ----
export DEBIAN_FRONTEND=noninteractive
apt-get install -y --no-install-recommends "${debs[@]}" >"$work/apt-install.log" 2>&1 ||
    { tail -n 30 "$work/apt-install.log"; fail "apt-get install failed"; }
for p in "${packages[@]}"; do
    [ "$(dpkg-query -W -f='${db:Status-Abbrev}' "$p")" = "ii " ] || fail "$p is not installed"
    dpkg-query -L "$p" >>"$work/installed-files"
done
getent group lmx >/dev/null || fail "the package made no group lmx"
[ "$(stat -c '%a %U %G' /run/lmx)" = "3770 root lmx" ] || fail "/run/lmx is $(stat -c '%a %U %G' /run/lmx)"
! ldd /usr/sbin/solicd | grep -q 'not found' || fail "solicd misses libraries: $(ldd /usr/sbin/solicd)"
[ -L /etc/systemd/system/multi-user.target.wants/solicd.target ] || fail "solicd.target is not enabled"
check_unit_paths "" /lib/systemd/system/solicd@.service /lib/systemd/system/solicd-hooks@.service
[ "$UNIT_PATHS_CHECKED" -ge 2 ] || fail "only $UNIT_PATHS_CHECKED paths in the units' sandbox settings"

# The shipped hooks are enabled by links the first install made, which belong to the operator
# from then on: one removed stays removed through a reinstall (an upgrade runs the same scripts).
hooks_d=/etc/solicd/hooks.d
for hook in 50-resolv.conf:resolv.conf 60-resolved:resolved; do
    [ "$(readlink "$hooks_d/${hook%%:*}")" = "/usr/lib/solicd/hooks/${hook#*:}" ] ||
        fail "$hooks_d/${hook%%:*} is not a link to the shipped hook: $(ls -l "$hooks_d" 2>&1)"
done
rm "$hooks_d/60-resolved"
apt-get install -y --reinstall "$pkgdir/solicd_${version}_$arch.deb" >"$work/apt-reinstall.log" 2>&1 ||
    { tail -n 30 "$work/apt-reinstall.log"; fail "apt-get install --reinstall failed"; }
[ ! -e "$hooks_d/60-resolved" ] && [ ! -L "$hooks_d/60-resolved" ] ||
    fail "the hook link the operator removed came back with a reinstall"
[ -L "$hooks_d/50-resolv.conf" ] || fail "the reinstall took the resolv.conf hook's link away"

unit=/lib/systemd/system/solicd@.service
mkdir -p /etc/solicd
printf 'NAMESPACE=%s\nINTERFACE=%s\nDESTINATION=%s\nSOURCE=%s\n' "$ns" "$ifname" "$client_mbox" "$daemon_mbox" \
    >"/etc/solicd/$instance.conf"
systemd-analyze verify "solicd@$instance.service" >"$work/verify.log" 2>&1 && [ ! -s "$work/verify.log" ] ||
    { cat "$work/verify.log"; fail "the installed unit does not verify"; }

# The unit's command line KEY for instance NAME, expanded as systemd expands it: %i, then each
# ${VAR} by the instance file's value, or nothing. One word per argument (the test's values
# hold no blanks).
unit_command() {
    local line file=/etc/solicd/$2.conf key value
    line=$(sed -n "s/^$1=//p" "$unit")
    [ -n "$line" ] || fail "the unit has no $1="
    line=${line//%i/$2}
    while IFS='=' read -r key value; do
        [[ "$key" =~ ^[A-Z]+$ ]] && line=${line//\$\{$key\}/$value}
    done <"$file"
    sed 's/\${[A-Z_]*}//g' <<<"$line"
}
read -r -a environment <<<"$(sed -n 's/^Environment=//p' "$unit")"
[ "${environment[*]}" = "SOLICD_TRACE_STDERR=ERROR,EXCEPTION" ] || fail "the unit's environment is ${environment[*]}"

# A valid instance: the check passes silently, solicd starts and becomes ready.
ip netns add "$ns"
ip -n "$ns" link add "$ifname" type veth peer name "$peer"
ip netns exec "$ns" sysctl -qw "net.ipv6.conf.$ifname.accept_dad=0"
ip -n "$ns" link set "$ifname" up
ip -n "$ns" link set "$peer" up
read -r -a condition <<<"$(unit_command ExecCondition "$instance")"
status=0
env "${environment[@]}" "${condition[@]}" >"$work/condition.out" 2>&1 || status=$?
[ "$status" -eq 0 ] && [ ! -s "$work/condition.out" ] ||
    fail "the check of a valid file: status $status, $(cat "$work/condition.out")"
"$listener" "$work/notify" >"$work/notify.out" 2>"$work/notify.err" &
pids+=($!)
for _ in $(seq 1 50); do [ -S "$work/notify" ] && break; sleep 0.1; done
read -r -a start <<<"$(unit_command ExecStart "$instance")"
[ "${start[0]}" = /usr/sbin/solicd ] || fail "ExecStart runs ${start[0]}"
env "${environment[@]}" NOTIFY_SOCKET="$work/notify" "${start[@]}" >"$work/daemon.out" 2>"$work/daemon.err" &
daemon_pid=$!
pids+=("$daemon_pid")
deadline=$((SECONDS + 20))
until grep -qx READY=1 "$work/notify.out"; do
    kill -0 "$daemon_pid" 2>/dev/null || fail "solicd ended: $(cat "$work/daemon.err")"
    [ $SECONDS -lt $deadline ] || fail "solicd was not ready within 20 s: $(cat "$work/notify.out")"
    sleep 0.1
done
grep -qx "STATUS=Waiting for the client mailbox $client_mbox" "$work/notify.out" ||
    fail "solicd's status: $(cat "$work/notify.out")"
[ "$(stat -c '%a %U %G' "/run/lmx/$daemon_mbox")" = "660 root lmx" ] ||
    fail "solicd's mailbox is $(stat -c '%a %U %G' "/run/lmx/$daemon_mbox")"

# An operator in group lmx asks it without root; one outside the group is told why not.
useradd --no-create-home --no-user-group --gid nogroup --shell /usr/sbin/nologin "$user_name"
gpasswd --add "$user_name" lmx >/dev/null
runuser -u "$user_name" -- solicctl show "$daemon_mbox" >"$work/show.out" 2>"$work/show.err" ||
    fail "solicctl show as a member of lmx: $(cat "$work/show.err")"
grep -q '^Counters:' "$work/show.out" || fail "solicctl show printed $(cat "$work/show.out")"
gpasswd --delete "$user_name" lmx >/dev/null
status=0
runuser -u "$user_name" -- solicctl show "$daemon_mbox" >"$work/refused.out" 2>"$work/refused.err" || status=$?
[ "$status" -eq 1 ] && [ "$(cat "$work/refused.err")" = "solicctl: permission denied: you may not use the mailboxes in /run/lmx; join group lmx (then log in again) or run as root" ] ||
    fail "solicctl show outside lmx: status $status, $(cat "$work/refused.err")"

kill -TERM "$daemon_pid"
status=0
wait "$daemon_pid" || status=$?
[ "$status" -eq 0 ] || fail "SIGTERM ended solicd with $status: $(cat "$work/daemon.err")"
# Nothing on stderr: ERROR and EXCEPTION are mirrored there, and ordinary mailbox traffic (the
# solicctl requests above) raises neither.
[ ! -s "$work/daemon.err" ] || fail "solicd wrote to stderr: $(cat "$work/daemon.err")"

# An invalid instance: the check names each mistake and fails, so systemd never runs ExecStart.
printf 'INTERFACE=enp0s31f6-uplink\nDESTINATON=%s\n' "$client_mbox" >"/etc/solicd/$broken.conf"
read -r -a condition <<<"$(unit_command ExecCondition "$broken")"
status=0
env "${environment[@]}" "${condition[@]}" >"$work/broken.out" 2>&1 || status=$?
expected="solicd-check-config: /etc/solicd/$broken.conf:1: INTERFACE 'enp0s31f6-uplink' is longer than 15 characters, the most the kernel keeps; give the name \`ip link\` shows
solicd-check-config: /etc/solicd/$broken.conf:2: unknown setting 'DESTINATON'; the settings are NAMESPACE, INTERFACE, SOURCE and DESTINATION"
[ "$status" -eq 1 ] && [ "$(cat "$work/broken.out")" = "$expected" ] ||
    fail "the check of an invalid file: status $status, $(cat "$work/broken.out")"

# ---- Remove, then purge ----
apt-get remove -y "${packages[@]}" >"$work/apt-remove.log" 2>&1 || { tail -n 30 "$work/apt-remove.log"; fail "apt-get remove failed"; }
[ ! -e /usr/sbin/solicd ] && [ ! -e /usr/bin/solicctl ] || fail "programs are left after removal"
# What is left is configuration: solicd's purge still has to forget its enabled target.
configured=$(dpkg-query -W -f='${db:Status-Abbrev} ${Package}\n' "${packages[@]}" 2>/dev/null | awk '$1 == "rc" { print $2 }' || true)
[ "$configured" = solicd ] || fail "after removal, packages with configuration left: '$configured'"
[ -L /etc/systemd/system/multi-user.target.wants/solicd.target ] || fail "removal disabled solicd.target already"
apt-get purge -y solicd >"$work/apt-purge.log" 2>&1 || { tail -n 30 "$work/apt-purge.log"; fail "apt-get purge failed"; }
for p in "${packages[@]}"; do
    state=$(dpkg-query -W -f='${db:Status-Abbrev}' "$p" 2>/dev/null || true)
    [ -z "$state" ] || [ "$state" = "un " ] || fail "$p is still known to dpkg as '$state'"
done
left=""
while read -r path; do
    [ -d "$path" ] || [ ! -e "$path" ] || left+=" $path"
done < <(sort -u "$work/installed-files")
[ -z "$left" ] || fail "files left after purge:$left"
[ ! -e /etc/systemd/system/multi-user.target.wants/solicd.target ] || fail "solicd.target is still enabled"
[ -f "/etc/solicd/$instance.conf" ] || fail "the operator's instance file went with the package"
[ ! -e "$hooks_d" ] || fail "purge left $hooks_d: $(ls -l "$hooks_d")"
[ ! -e /var/lib/solicd ] || fail "purge left /var/lib/solicd: $(ls -l /var/lib/solicd)"

echo "PASS: ${#packages[@]} packages from a clean clone, lintian clean but $(wc -l <"$work/tags") known" \
    "informational tags; installed, ready and refused as the unit runs it, purged without a trace"

#!/usr/bin/env bash
# The solicd .deb made from this build carries the listed files, its library dependencies and
# its maintainer scripts, apt accepts it, and the binaries extracted from it run from the
# extracted libraries: solicctl --help and solicd --help exit 0, solicd printing its usage.
source "$(dirname "$0")/packaging_lib.sh"
need_root "inspect and install a Debian package as the package tools expect"
need_tools cpack dpkg-deb dpkg-shlibdeps apt-get readelf

pkgdir=$work/pkg
cpack -G DEB --config "$SOLICD_BUILD/CPackConfig.cmake" -B "$pkgdir" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; fail "cpack could not build the package"; }
arch=$(dpkg --print-architecture)
deb=$pkgdir/solicd_${version}_$arch.deb
[ -f "$deb" ] || fail "no $deb; cpack made: $(ls "$pkgdir")"

field() { dpkg-deb --field "$deb" "$1"; }
[ "$(field Package)" = solicd ] || fail "package name is '$(field Package)'"
[ "$(field Version)" = "$version" ] || fail "package version is '$(field Version)'"
depends=$(field Depends)
for lib in libglib2.0-0 liblttng-ust1 libc6; do
    [[ ", $depends" == *", $lib "* ]] || fail "Depends lacks $lib: $depends"
done

dpkg-deb --control "$deb" "$work/control"
for script in postinst prerm postrm; do
    [ -x "$work/control/$script" ] || fail "the package has no executable $script"
    sh -n "$work/control/$script" || fail "$script is not valid sh"
done
grep -qx 'activate-noawait ldconfig' "$work/control/triggers" || fail "the package does not trigger ldconfig"
for lib in soltypes restart solicd-tp lmx; do
    grep -qx "lib$lib 0 solicd (= $version)" "$work/control/shlibs" || fail "shlibs lacks lib$lib"
done

root=$work/root
dpkg-deb -x "$deb" "$root"
check_layout "$root" "the package"
check_elf "$root"

# Resolves against the installed system as apt would on install.
apt-get install --simulate --no-download "$deb" >"$work/apt.log" 2>&1 ||
    { cat "$work/apt.log"; fail "apt does not accept the package"; }
grep -q "^Conf solicd ($version" "$work/apt.log" || { cat "$work/apt.log"; fail "apt would not configure solicd"; }

# The extracted binaries take every library of ours from the extracted tree.
export LD_LIBRARY_PATH=$root$prefix/$libdir
from_package() {
    local binary=$1 resolved ours
    resolved=$(ldd "$binary")
    ! grep -q 'not found' <<<"$resolved" || fail "$binary misses libraries: $resolved"
    for ours in $(readelf -d "$binary" | sed -n 's/.*Shared library: \[\(lib\(soltypes\|lmx\|restart\|solicd-tp\)\.so\.0\)\]/\1/p'); do
        grep -qF "$ours => $LD_LIBRARY_PATH/$ours" <<<"$resolved" || fail "$binary takes $ours from elsewhere"
    done
}
from_package "$root$prefix/bin/solicctl"
"$root$prefix/bin/solicctl" --help >"$work/solicctl.out" || fail "solicctl --help exits $?"
grep -q '^Usage: solicctl' "$work/solicctl.out" || fail "solicctl --help prints no usage"
# The mailbox service from the package, on an empty directory.
mkdir -m 0770 "$work/lmx"
LMX_DIR=$work/lmx "$root$prefix/bin/solicctl" ls >"$work/ls.out" || fail "solicctl ls exits $?"
[ ! -s "$work/ls.out" ] || fail "solicctl ls lists mailboxes in an empty directory: $(cat "$work/ls.out")"

from_package "$root$prefix/sbin/solicd"
"$root$prefix/sbin/solicd" --help >"$work/solicd.out" || fail "solicd --help exits $?"
grep -q '^Usage:' "$work/solicd.out" || fail "solicd --help prints no usage"
grep -qF -- '--namespace=NAMESPACE' "$work/solicd.out" || fail "solicd --help lists no --namespace"
echo "PASS: $(basename "$deb") (Depends: $depends) installs the listed files; solicd and" \
    "solicctl run from it"

#!/usr/bin/env bash
# `make install DESTDIR=... PREFIX=...` lays out exactly the listed files with their sonames, the
# sysusers and tmpfiles entries make group lmx, /run/lmx root:lmx with mode 3770 and every path
# the units' sandbox settings name, and a client builds and runs against the staged headers and
# libraries through `pkg-config --cflags --libs soltypes lmx`.
source "$(dirname "$0")/packaging_lib.sh"
need_tools make pkg-config readelf g++ systemd-tmpfiles systemd-sysusers

root=$work/root
# The build's own prefix, so that the install step does not reconfigure it.
make -C "$SOLICD_SRC" install BUILD="$SOLICD_BUILD" PREFIX="$prefix" DESTDIR="$root" JOBS=2 \
    >"$work/install.log" 2>&1 || { cat "$work/install.log"; fail "make install failed"; }
grep -q "Installing: $root$prefix/" "$work/install.log" || fail "make install did not honour DESTDIR"

check_layout "$root" "make install"
check_elf "$root"

# The unit starts the daemon where it was installed.
grep -qx "ExecStart=$prefix/sbin/solicd .*" "$root$prefix/lib/systemd/system/solicd@.service" ||
    fail "the unit's ExecStart does not name $prefix/sbin/solicd"

# sysusers.d and tmpfiles.d read the prefix's directories; --root applies them inside the staged
# tree: the group first (in the tree's own /etc/group), then the directory of that group.
mkdir -p "$root/etc"
systemd-sysusers --root="$root" solicd.conf >"$work/sysusers.log" 2>&1 ||
    { cat "$work/sysusers.log"; fail "systemd-sysusers rejected solicd.conf"; }
gid=$(awk -F: '$1 == "lmx" { print $3 }' "$root/etc/group")
[ -n "$gid" ] || fail "sysusers made no group lmx: $(cat "$root/etc/group")"
systemd-tmpfiles --root="$root" --create solicd.conf || fail "systemd-tmpfiles rejected solicd.conf"
[ "$(stat -c '%a %u %g %F' "$root/run/lmx")" = "3770 0 $gid directory" ] ||
    fail "/run/lmx is $(stat -c '%a %u %g %F' "$root/run/lmx"), expected mode 3770, root and group lmx ($gid)"
# What the units' sandboxes name exists once tmpfiles has run, as after the package's install.
check_unit_paths "$root" "$root$prefix"/lib/systemd/system/*.service
[ "$UNIT_PATHS_CHECKED" -ge 2 ] || fail "only $UNIT_PATHS_CHECKED paths in the units' sandbox settings"

# A client of the staged headers, through the .pc files relocated to the staging prefix.
modules=(soltypes lmx)
export PKG_CONFIG_PATH="$root$prefix/$libdir/pkgconfig"
pc=(pkg-config --define-variable=prefix="$root$prefix")
for m in "${modules[@]}"; do
    [ "$("${pc[@]}" --modversion "$m")" = "$version" ] || fail "$m.pc does not carry version $version"
done
flags=$("${pc[@]}" --cflags --libs "${modules[@]}")
case "$flags" in
    *"-I$root$prefix/include/solicd"*"-L$root$prefix/$libdir"*) ;;
    *) fail "pkg-config flags do not point into the staged tree: $flags" ;;
esac

cat >"$work/client.cpp" <<'EOF'
#include <cstdio>

#include <SolIf.h>
#include <SolTypes.h>
#include <lmx.h>

int main() {
    solicd::SolRouter::Config router;
    router.address.family = KT_AF_INET6;
    router.address.bytes[0] = 0xfe;
    router.address.bytes[1] = 0x80;
    router.address.bytes[15] = 1;
    std::printf("%s\n", router.getName().c_str());
    std::printf("%s\n", solifMsgNoToCstr(SOLIF_ROUTER_UPDATED_IND));
    // A mailbox of the installed service, found again by name.
    if (lmx_init(1, nullptr) != 0) {
        std::perror("lmx_init");
        return 1;
    }
    const lmx_mbox_id_t id = lmx_create_mailbox("pkg-config-client", 0);
    std::printf("%s %s\n", lmx_name(id), lmx_locate("pkg-config-client") == id ? "located" : "lost");
    lmx_exit();
    return 0;
}
EOF
expected="router/fe80::1
solif_router_updated_ind_t
pkg-config-client located"
# shellcheck disable=SC2086 # the flags are words
g++ -std=c++20 -Wall -Werror "$work/client.cpp" -o "$work/client" $flags ||
    fail "a client does not compile against the installed headers with: $flags"
out=$(LMX_DIR="$work/lmx" LD_LIBRARY_PATH="$root$prefix/$libdir" "$work/client") || fail "the client does not run"
[ "$out" = "$expected" ] || fail "client printed '$out', expected '$expected'"

echo "PASS: make install laid out $(expected_install_files | wc -l) files under DESTDIR$prefix;" \
    "a client built with pkg-config ${modules[*]}"

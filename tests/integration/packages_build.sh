#!/usr/bin/env bash
# The Debian packages of the committed tree, built by `make package` in a clean clone, into
# $SOLICD_BUILD/test-packages for the tests that install them (the package test on this machine,
# the units under a real systemd in a container): built once per test run, checked by those.
source "$(dirname "$0")/packaging_lib.sh"
need_tools git make dpkg-buildpackage

out=$SOLICD_BUILD/test-packages
rm -rf "$out"
git -C "$SOLICD_SRC" rev-parse --is-inside-work-tree >/dev/null 2>&1 ||
    fail "$SOLICD_SRC is no git work tree to clone"
git clone --quiet "$SOLICD_SRC" "$work/clone" || fail "git clone $SOLICD_SRC failed"
# The unit tests have run already (CTest); the packages' own run of them is left out here.
DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" make -C "$work/clone" package PACKAGE_BUILD="$out" \
    >"$work/package.out" 2>&1 || { tail -n 80 "$work/package.out"; fail "make package failed"; }
# The copy of the tree it was built from is not needed any more; the list of what was printed is.
rm -rf "$out/source"
grep '\.deb$' "$work/package.out" | grep -v -- '-dbgsym_' | sort >"$out/printed"
cp "$work/clone/debian/changelog" "$out/changelog"
echo "PASS: $(wc -l <"$out/printed") packages in $out"

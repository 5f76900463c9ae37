# shellcheck shell=bash
# Shared by the packaging tests: a scratch directory removed on exit, the build's configured
# install locations, and what the build has produced so far.
set -euo pipefail

: "${SOLICD_BUILD:?}" "${SOLICD_SRC:?}"

fail() {
    echo "FAIL: $*"
    exit 1
}

need_root() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "skipped: needs root to $*"
        exit 77
    fi
}

need_tools() {
    local tool
    for tool in "$@"; do
        command -v "$tool" >/dev/null || fail "$tool is missing; run scripts/install-deps"
    done
}

work=$(mktemp -d /tmp/solicd-packaging.XXXXXX)
trap 'rm -rf "$work"' EXIT

# A value from the build's CMake cache, e.g. CMAKE_INSTALL_PREFIX.
cache_var() {
    sed -n "s/^$1:[A-Z]*=//p" "$SOLICD_BUILD/CMakeCache.txt"
}

prefix=$(cache_var CMAKE_INSTALL_PREFIX)
libdir=$(cache_var CMAKE_INSTALL_LIBDIR)
[ -n "$prefix" ] && [ -n "$libdir" ] || fail "no install locations in $SOLICD_BUILD/CMakeCache.txt"
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:[A-Z]*=//p' "$SOLICD_BUILD/CMakeCache.txt")


# Every file (and symbolic link) an install lays out, relative to the prefix, sorted.
expected_install_files() {
    local lib
    {
        echo sbin/solicd
        echo sbin/solicd-check-config
        echo bin/solicctl
        echo bin/solicd-trace
        for lib in soltypes restart solicd-tp lmx; do
            echo "$libdir/lib$lib.so"
            echo "$libdir/lib$lib.so.0"
            echo "$libdir/lib$lib.so.$version"
        done
        echo include/solicd/SolTypes.h
        echo include/solicd/SolTypesParse.h
        echo include/solicd/SolIf.h
        echo include/solicd/lmx.h
        echo include/solicd/orv_restart.h
        echo "$libdir/pkgconfig/soltypes.pc"
        echo "$libdir/pkgconfig/lmx.pc"
        echo share/man/man8/solicd.8.gz
        echo share/man/man8/solicd-check-config.8.gz
        echo share/man/man1/solicctl.1.gz
        echo share/man/man1/solicd-trace.1.gz
        echo share/bash-completion/completions/solicctl
        echo lib/systemd/system/solicd@.service
        echo lib/systemd/system/solicd.target
        echo lib/systemd/system/solicd-hooks@.service
        echo lib/solicd/hooks/resolv.conf
        echo lib/solicd/hooks/resolved
        echo lib/solicd/hooks/log
        echo lib/tmpfiles.d/solicd.conf
        echo lib/sysusers.d/solicd.conf
        echo share/doc/solicd/instance.conf.example
        echo share/doc/solicd/operator-guide.md
        echo share/doc/solicd/examples/node-exporter/solicd-metrics@.service
        echo share/doc/solicd/examples/node-exporter/solicd-metrics@.timer
        echo share/doc/solicd/tracing.md
        echo share/doc/solicd/client-protocol.md
    } | LC_ALL=C sort
}

# Files and links under $1, relative to it, sorted.
files_under() {
    (cd "$1" && find . \( -type f -o -type l \) -printf '%P\n' | LC_ALL=C sort)
}

# Compares the files under $1$prefix with the expected list; the difference is the failure.
check_layout() {
    local root=$1 what=$2
    [ -d "$root$prefix" ] || fail "$what: nothing under $prefix"
    if ! diff -u <(expected_install_files) <(files_under "$root$prefix") >"$work/layout.diff"; then
        echo "--- expected, +++ laid out by $what:"
        cat "$work/layout.diff"
        fail "$what does not lay out exactly the listed files"
    fi
    local outside
    outside=$(cd "$root" && find . \( -type f -o -type l \) -printf '/%P\n' | grep -v "^$prefix/" || true)
    [ -z "$outside" ] || fail "$what put files outside $prefix: $outside"
}

# Each library's soname is lib<name>.so.0, and no installed ELF file looks into the build tree.
check_elf() {
    local root=$1 lib soname f paths
    for lib in soltypes restart solicd-tp lmx; do
        soname=$(readelf -d "$root$prefix/$libdir/lib$lib.so.$version" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
        [ "$soname" = "lib$lib.so.0" ] || fail "lib$lib has soname '$soname', expected lib$lib.so.0"
    done
    while IFS= read -r f; do
        paths=$(readelf -d "$f" 2>/dev/null | grep -E 'RPATH|RUNPATH' || true)
        [[ "$paths" != *"$SOLICD_BUILD"* ]] || fail "$f keeps a search path into the build tree: $paths"
    done < <(find "$root$prefix" -type f \( -name '*.so.*' -o -path '*bin/*' \))
}

# check_unit_paths ROOT UNIT_FILE...: every path of the units' sandbox settings that systemd needs
# when it starts a unit (ReadWritePaths= and its kin, the sources of BindPaths=, WorkingDirectory=,
# RootDirectory=) exists under ROOT or carries the '-' that makes it optional; systemd refuses to
# start a unit over a missing one (226/NAMESPACE). Sets UNIT_PATHS_CHECKED to how many it checked.
check_unit_paths() {
    local root=$1 unit key value path checked=0
    shift
    for unit in "$@"; do
        [ -f "$unit" ] || fail "no unit $unit"
        while IFS='=' read -r key value; do
            case $key in
                ReadWritePaths | ReadOnlyPaths | InaccessiblePaths | ExecPaths | NoExecPaths | BindPaths | \
                    BindReadOnlyPaths | WorkingDirectory | RootDirectory) ;;
                *) continue ;;
            esac
            for path in $value; do
                case $path in -*) continue ;; esac
                path=${path#+}
                path=${path%%:*}
                [[ $path != *%* ]] || fail "$(basename "$unit"): $key=$path depends on the instance; no test can tell it exists"
                [ -e "$root$path" ] ||
                    fail "$(basename "$unit"): $key=$path does not exist after install; the package must make it, or '-' mark it optional"
                checked=$((checked + 1))
            done
        done < <(grep -E '^[A-Za-z]+=' "$unit")
    done
    UNIT_PATHS_CHECKED=$checked
}

# verify_unit ROOT INSTANCE: `systemd-analyze verify` of INSTANCE in the scratch root ROOT (its
# manual pages in ROOT/usr/share/man) says nothing. --recursive-errors=no: the scratch root has
# no sysinit.target and the like to depend on.
verify_unit()
{
    if ! MANPATH=$1/usr/share/man systemd-analyze verify --root="$1" --recursive-errors=no \
        "$2" >"$work/verify.log" 2>&1 || [ -s "$work/verify.log" ]; then
        cat "$work/verify.log"
        fail "systemd-analyze verify $2 is not clean"
    fi
}

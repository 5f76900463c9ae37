#!/usr/bin/env bash
# Runs one integration test (its script and arguments) where no tracing session outside it can
# reach: in a mount namespace of its own whose /run/lttng and /dev/shm are empty and private,
# with LTTNG_HOME in there too. The test's processes then register with no session daemon but one
# the test starts itself, and a session recording solicd's events elsewhere on the machine never
# enables theirs. Not root: the test runs as it is, and says why it skips.
set -euo pipefail
script=$1
shift
if [ "$(id -u)" -ne 0 ] || [ -n "${SOLICD_TEST_ISOLATED:-}" ]; then
    exec bash "$script" "$@"
fi
exec unshare --mount --propagation private env SOLICD_TEST_ISOLATED=1 bash -c '
    set -e
    mkdir -p /run/lttng
    mount -t tmpfs -o mode=0755 solicd-test /run/lttng
    mount -t tmpfs -o mode=1777 solicd-test /dev/shm
    mkdir /run/lttng/home
    export LTTNG_HOME=/run/lttng/home
    exec bash "$@"' isolated "$script" "$@"

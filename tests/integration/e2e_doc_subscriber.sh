#!/usr/bin/env bash
# The minimal subscriber of docs/client-protocol.md compiles as printed against the tree's headers
# and libraries, and receives solicd's updates.
source "$(dirname "$0")/e2e_lib.sh"
: "${SOLICD_SRC:?}"
command -v c++ >/dev/null || { echo "skipped: no C++ compiler"; exit 77; }

awk '/^```cpp$/ { f = 1; next } /^```$/ { f = 0 } f' "$SOLICD_SRC/docs/client-protocol.md" >"$WORK/subscriber.cpp"
[ -s "$WORK/subscriber.cpp" ] || fail "no example in docs/client-protocol.md"
# A sanitizer build's libraries need the sanitizers in the program too.
sanitize=()
grep -q '^SOLICD_SANITIZE:BOOL=ON$' "$SOLICD_BUILD/CMakeCache.txt" && sanitize=(-fsanitize=address,undefined)
c++ -std=c++20 -Wall -Wextra -Werror "${sanitize[@]}" -I"$SOLICD_SRC/types" -I"$SOLICD_SRC/platform/lmx" "$WORK/subscriber.cpp" \
    -L"$SOLICD_BUILD/lib" -lsoltypes -llmx -Wl,-rpath,"$SOLICD_BUILD/lib" -o "$WORK/subscriber" \
    >"$WORK/compile.out" 2>&1 || fail "the example does not compile"

lab_up
router_address fe80::a
"$WORK/subscriber" "$CLIENT_MBOX" >"$WORK/subscriber.out" 2>&1 &
PIDS+=($!)
start_solicd
wait_ready 20
send_ra fe80::a lifetime=600 prefix=2001:db8:1::/64,3600,1800 rdnss=600,2001:db8::53,2001:db8::54
wait_lines "$WORK/subscriber.out" 3 10
grep -q '^router {config: {address: fe80::a, reachableTime: 0, retransTimer: 0, routerLifetime: 600, flags: 0x0}' \
    "$WORK/subscriber.out" || fail "no router line"
grep -q '^network {config: {prefix: 2001:db8:1::, prefixLength: 64, validLifetime: 3600, preferredLifetime: 1800' \
    "$WORK/subscriber.out" || fail "no network line"
grep -qx 'dns servers: 2' "$WORK/subscriber.out" || fail "no DNS line"
echo "PASS"

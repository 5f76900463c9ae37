# Shared by the integration libraries (sourced, after they set LAB and LAB_TOOLS): the root and
# tool checks, names unique to this run, a scratch directory, background processes and
# namespaces removed on the way out, and fail, which shows what the processes wrote.
# KEEP_WORK=1 keeps the scratch directory for a look afterwards.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root to create network namespaces and open raw sockets"
    exit 77
fi
for tool in ip $LAB_TOOLS; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed (scripts/install-deps)"; exit 77; }
done

# Short unique suffix: interface names must stay within 15 characters.
RUN=$(printf '%x%x' $$ $((RANDOM % 256)))
WORK=$(mktemp -d "/tmp/solicd-$LAB.XXXXXX")
NAMESPACES=()
PIDS=()
EXTRA_FILES=()

cleanup()
{
    local pid
    for pid in "${PIDS[@]}"; do
        # A process a test stopped (kill -STOP) takes the signal only once it runs again.
        kill "$pid" 2>/dev/null || true
        kill -CONT "$pid" 2>/dev/null || true
    done
    for pid in "${PIDS[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    local ns
    for ns in "${NAMESPACES[@]}"; do
        ip netns del "$ns" 2>/dev/null || true
    done
    rm -f "${EXTRA_FILES[@]}"
    [ -n "${KEEP_WORK:-}" ] || rm -rf "$WORK"
}
trap cleanup EXIT

fail()
{
    echo "FAIL: $*"
    local f
    for f in "$WORK"/*.out "$WORK"/*.err "$WORK"/*.log; do
        [ -s "$f" ] || continue
        echo "---- $f"
        tail -n 60 "$f"
    done
    exit 1
}

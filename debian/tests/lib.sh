# Shared by the tests of the installed packages.
set -euo pipefail
export KAV_STAT_SEGMENT=kav_autopkgtest.$$
work=${AUTOPKGTEST_TMP:-$(mktemp -d)}
cd "$work"

expect() {
    local text=$1 pattern=$2
    if [[ "$text" != *"$pattern"* ]]; then
        printf 'expected "%s" in:\n%s\n' "$pattern" "$text" >&2
        exit 1
    fi
}

# Fails unless a command ends with this status. Its output is in $work/out.
expect_status() {
    local wanted=$1 status=0
    shift
    "$@" >"$work/out" 2>&1 || status=$?
    if ((status != wanted)); then
        printf '%s: status %d, not %d\n' "$*" "$status" "$wanted" >&2
        cat "$work/out" >&2
        exit 1
    fi
}

# start_engine OPTION...: runs the demo engine once over the system's documents.
start_engine() {
    kav_demo_engine --once "$@" /usr/share/doc >"$work/engine" 2>&1 &
    engine=$!
    trap 'kill $(jobs -p) 2>/dev/null || true' EXIT
    until grep -q '^idle$' "$work/engine"; do
        kill -0 "$engine" || { cat "$work/engine" >&2; exit 1; }
        sleep 0.1
    done
}

# stop PROCESS: ends a process, which must end well.
stop() {
    kill "$1"
    wait "$1"
}

#!/bin/bash
# Starts ./run as a user does, and looks at the process that it becomes.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

fail() {
    echo "run: $*" >&2
    cat "$log" >&2
    exit 1
}

log=$(mktemp)
trap '[[ -z ${server-} ]] || kill -KILL "$server" 2>/dev/null || true; rm -f "$log"' EXIT

./run --port=0 --test >"$log" 2>&1 &
server=$!
for ((try = 0; try < 600; try++)); do
    grep -q 'Launch was successful' "$log" && break
    kill -0 "$server" 2>/dev/null || fail "ended by itself"
    sleep 0.1
done
grep -q 'Launch was successful' "$log" || fail "does not serve"

[[ $(readlink "/proc/$server/exe") == "$PWD/build/release/bin/GpioServer" ]] ||
    fail "did not become the server"
ignored=$(awk '$1 == "SigIgn:" {print $2}' "/proc/$server/status")
((16#$ignored & 1 << (13 - 1))) || fail "the broken-pipe signal is not ignored"

kill -TERM "$server"
status=0
wait "$server" || status=$?
server=
((status == 128 + 15)) || fail "ended with status $status instead of by the signal"

#!/usr/bin/env bash
# errorExamplesTest.sh FOLDER [EMULATOR ...]: the errors of several reporters,
# which find the collector at the second of two addresses, end in the
# collector's error log; a silent connection is closed.
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source=scripts/daemons.sh
. "$top/scripts/daemons.sh"
programs=$1
shift

work=$(mktemp -d)
collector=
end()
{
    [ -z "$collector" ] || kill -9 "$collector" 2>/dev/null || true
    rm -rf "$work"
}
trap end EXIT
mkdir "$work/log"
export TOLV_ERRORLOG=$work/log TOLV_TRACE_DIR=$work

fail()
{
    printf '%s\n' "$*"
    cat "$work"/*.out
    exit 1
}

port=$(freePort)
"$@" "$programs/errorCollector" "$port" 12 >"$work/collector.out" 2>&1 &
collector=$!
await 20 grep -q listening "$work/collector.out" || fail "nobody listens"

# Nobody listens at 127.0.0.2, so the second address counts.
reporters=()
for number in 1 2 3 4
do
    "$@" "$programs/errorReporter" 127.0.0.2 127.0.0.1 "$port" \
        "$work/missing.$number".{a,b} "$0" "$work/missing.$number.c" \
        >"$work/reporter.$number.out" 2>&1 &
    reporters+=($!)
done

# Sends nothing, and is closed long before the time is up.
python3 - "$port" <<'END' || fail "a silent connection stays open"
import socket
import sys
with socket.create_connection(("127.0.0.1", int(sys.argv[1]))) as peer:
    peer.settimeout(20)
    assert peer.recv(1) == b""
END

for number in 1 2 3 4
do
    wait "${reporters[number - 1]}" || fail "reporter $number failed"
    grep -qx 'connected to 127.0.0.1' "$work/reporter.$number.out" ||
        fail "reporter $number is connected elsewhere"
done
wait "$collector" || fail "the collector failed"
collector=

entries=("$work"/log/entry.*)
[ "${#entries[@]}" -eq 12 ] || fail "${#entries[@]} entries, not 12"
"$@" "$programs/showErrorLog" "${entries[@]}" >"$work/shown.out"
[ "$(grep -c '^reason 5002, errno 2,' "$work/shown.out")" -eq 12 ] ||
    fail "not every entry tells the reason"
for number in 1 2 3 4
do
    for letter in a b c
    do
        grep -q "Cannot open $work/missing.$number.$letter, errno 2" \
            "$work/shown.out" || fail "missing.$number.$letter is not logged"
    done
done

# Without a collector the second address's refusal is the result.
port=$(freePort)
! "$@" "$programs/errorReporter" 127.0.0.2 127.0.0.1 "$port" "$0" \
    >"$work/alone.out" 2>&1 || fail "connected to nobody"
grep -q '^ConnectWithTimeout: ' "$work/alone.out" || fail "no reason given"

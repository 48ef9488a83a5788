#!/usr/bin/env bash
# timerExamplesTest.sh FOLDER [EMULATOR ...]: the timer daemon sees a file grow
# and go, looks less often while nothing happens, and ends on SIGTERM.
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source=scripts/daemons.sh
. "$top/scripts/daemons.sh"
programs=$1
shift

work=$(mktemp -d)
daemon=
end()
{
    [ -z "$daemon" ] || kill -9 "$daemon" 2>/dev/null || true
    rm -rf "$work"
}
trap end EXIT
export TOLV_TRACE_DIR=$work

fail()
{
    printf '%s\n' "$*"
    cat "$work/output"
    exit 1
}

# tells LINE: waits for it.
tells()
{
    await 20 grep -qsx "$1" "$work/output" || fail "does not tell: $1"
}

start()
{
    rm -f "$work/output" # what an earlier daemon told
    "$@" "$programs/timerDaemon" "$work/file" >"$work/output" 2>&1 &
    daemon=$!
}

: >"$work/file"
start "$@"
tells '0 bytes'
printf 'first' >>"$work/file"
tells '5 bytes'
printf ' and second' >>"$work/file"
tells '16 bytes'
# Three reports and no news between them: at 10 ms there would be about 200
# looks, with the growing period there are few.
known=$(wc -l <"$work/output")
looks()
{
    sed -nE "1,${known}d; s/^looked ([0-9]+) times\$/\\1/p" "$work/output"
}
threeReports()
{
    [ "$(looks | wc -l)" -ge 3 ]
}
await 20 threeReports || fail "does not report"
more=$(($(looks | sed -n 3p) - $(looks | sed -n 1p)))
((more > 0 && more < 40)) || fail "looked $more times in 2 s"
rm "$work/file"
tells gone
wait "$daemon" || fail "failed"
tells stopped
! grep -q '^no more' "$work/output" || fail "a timer outlived its end"

: >"$work/file"
start "$@"
tells '0 bytes'
kill "$daemon"
wait "$daemon" || fail "SIGTERM is not orderly"
daemon=
tells stopped
grep -qx 'no more looks' "$work/output" || fail "the timers were not told"
grep -qx 'no more reports' "$work/output" || fail "the timers were not told"

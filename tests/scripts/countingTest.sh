#!/usr/bin/env bash
# Tests that scripts/test and what the lanes count with report honestly: what
# is broken, missing or cut short is never counted as passed. Runs the real
# scripts on lanes and results made up here; prints what is wrong.
set -u
top=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
faults=0

# expect WHAT WANTED GOT
expect()
{
    if [ "$2" != "$3" ]
    then
        printf '%s: wanted [%s], got [%s]\n' "$1" "$2" "$3"
        faults=1
    fi
}

# lane NAME TEXT STATUS: makes up a lane.
lane()
{
    printf '#!/bin/sh\nprintf "%s"\nexit %s\n' "$2" "$3" \
        >"$work/scripts/lanes/$1"
    chmod +x "$work/scripts/lanes/$1"
}

# run WHAT STATUS LAST LANE ...: what scripts/test makes of the lanes.
run()
{
    local what=$1 wanted_status=$2 last=$3 status=0
    shift 3
    "$work/scripts/test" "$@" >"$work/output" 2>"$work/errors" || status=$?
    expect "status of $what" "$wanted_status" "$status"
    expect "last line of $what" "$last" "$(tail -n 1 "$work/output")"
}

# results WHAT CLOSING XML: what the lanes make of ctest's results.
results()
{
    printf '<testsuite>%s</testsuite>' "$3" >"$work/results.xml"
    expect "$1" "$2" \
        "$("$top/scripts/lanes/readResults.py" "$work/results.xml" | tail -n 1)"
}

mkdir -p "$work/scripts/lanes"
cp "$top/scripts/test" "$work/scripts/test"
printf '#!/bin/sh\n' >"$work/scripts/setup"
chmod +x "$work/scripts/setup"

lane unit 'ok\n3 passed, 0 failed, 1 skipped\n' 0
lane asan '4 passed, 0 failed, 0 skipped\n' 0
run "two good lanes" 0 "7 passed, 0 failed, 1 skipped" unit asan
expect "closing lines" 1 "$(grep -cE '^[0-9]+ passed' "$work/output")"
lane asan '4 passed, 2 failed, 0 skipped\n' 1
run "a failed lane" 1 "7 passed, 2 failed, 1 skipped" asan unit
lane asan '4 passed, 0 failed, 0 skipped\n' 9
run "a good count with a bad end" 1 "4 passed, 1 failed, 0 skipped" asan
lane asan '4 passed, 0 failed, 0 skipped\nKilled\n' 0
run "a lane cut short" 1 "3 passed, 1 failed, 1 skipped" asan unit
lane asan '' 0
run "a silent lane" 1 "0 passed, 1 failed, 0 skipped" asan
run "a missing lane" 1 "3 passed, 1 failed, 1 skipped" tsan unit
lane asan '0 passed, 0 failed, 2 skipped\n' 0
run "a lane that ran nothing" 1 "0 passed, 0 failed, 2 skipped" asan
run "an unknown lane" 2 "" unit nosuchlane
expect "complaint" 1 "$(grep -c "no lane 'nosuchlane'" "$work/errors")"
printf '#!/bin/sh\nexit 1\n' >"$work/scripts/setup"
run "a failed set-up" 1 "3 passed, 1 failed, 1 skipped" unit

results "a completed test" "1 passed, 0 failed, 0 skipped" \
    '<testcase name="A" status="run"/>'
results "a failed test" "0 passed, 1 failed, 0 skipped" \
    '<testcase name="A" status="fail"><failure message=""/></testcase>'
skip='<skipped message="SKIP_REGULAR_EXPRESSION_MATCHED"/>'
results "a test that skips itself" "0 passed, 0 failed, 1 skipped" \
    "<testcase name='A' status='notrun'>$skip</testcase>"
results "a test that skips itself and leaks" "0 passed, 1 failed, 0 skipped" \
    "<testcase name='A' status='notrun'>$skip
    <system-out>ERROR: LeakSanitizer: detected</system-out></testcase>"
results "a test whose program is missing" "0 passed, 1 failed, 0 skipped" \
    '<testcase name="A" status="notrun"><skipped message="Unable to find
    executable"/></testcase>'
results "a disabled test" "0 passed, 0 failed, 1 skipped" \
    '<testcase name="A" status="disabled"/>'
results "no test at all" "0 passed, 1 failed, 0 skipped" ''
results "a result file cut short" "0 passed, 1 failed, 0 skipped" '<testcase'

exit "$faults"

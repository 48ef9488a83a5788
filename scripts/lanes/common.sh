# shellcheck shell=bash
# For the lanes: counts checks and closes with the line that scripts/test adds
# up. A lane is started in the top folder, sources this file, makes its checks
# and ends with `finish`.

set -u
TOLV_PASSED=0
TOLV_FAILED=0
TOLV_SKIPPED=0

# check NAME COMMAND [ARGUMENT ...]: passes when the command succeeds; shows
# what it printed only when it does not, and fails then.
check()
{
    local name=$1 output
    shift
    if output=$("$@" 2>&1)
    then
        printf 'ok      %s\n' "$name"
        TOLV_PASSED=$((TOLV_PASSED + 1))
    else
        printf '%s\nFAILED  %s\n' "$output" "$name"
        TOLV_FAILED=$((TOLV_FAILED + 1))
        return 1
    fi
}

# refuses TEXT COMMAND [ARGUMENT ...]: shows that a checker, given a bad sample,
# can fail: succeeds when the command fails and what it prints contains TEXT, so
# that it failed for the right reason.
refuses()
{
    local text=$1 output
    shift
    if output=$("$@" 2>&1)
    then
        printf 'accepted a bad sample: %s\n%s\n' "$*" "$output"
        return 1
    fi
    if [[ $output != *"$text"* ]]
    then
        printf 'refused, but not for "%s": %s\n%s\n' "$text" "$*" "$output"
        return 1
    fi
}

# skip NAME REASON: says loudly what could not run; never counts as passed.
skip()
{
    printf 'SKIPPED %s: %s\n' "$1" "$2"
    TOLV_SKIPPED=$((TOLV_SKIPPED + 1))
}

# addResults COMMAND [ARGUMENT ...]: the command reports on tests; its last
# line is 'N passed, N failed, N skipped' and is added, the rest is shown.
addResults()
{
    local output passed failed skipped
    output=$("$@" 2>&1)
    if ! read -r passed failed skipped < <(tail -n 1 <<<"$output" |
        sed -nE 's/^([0-9]+) passed, ([0-9]+) failed, ([0-9]+) skipped$/\1 \2 \3/p')
    then
        printf '%s\nFAILED  no result from %s\n' "$output" "$1"
        TOLV_FAILED=$((TOLV_FAILED + 1))
        return
    fi
    sed '$d' <<<"$output"
    TOLV_PASSED=$((TOLV_PASSED + passed))
    TOLV_FAILED=$((TOLV_FAILED + failed))
    TOLV_SKIPPED=$((TOLV_SKIPPED + skipped))
}

# buildPreset PRESET: configures and builds everything of a preset, as far as
# it goes, so that one run shows every fault.
buildPreset()
{
    cmake --preset "$1" && cmake --build --preset "$1" -- -k 0
}

# buildSample PRESET NAME [FLAG ...]: compiles the program on standard input
# with the compiler and the flags that the preset gives the library, and with
# these, to build/PRESET/samples/NAME.
buildSample()
{
    local folder=build/$1/samples command
    mkdir -p "$folder" && cat >"$folder/$2.cpp" &&
        command=$(scripts/list-commands "build/$1" src/tolv/vex |
            sed -nE '3s/ -o .*//p') && [ -n "$command" ] || return
    # shellcheck disable=SC2086 # plain words, as the build writes them
    $command -pthread "${@:3}" "$folder/$2.cpp" -o "$folder/$2"
}

# testPreset PRESET JOBS: runs every test of a built preset, JOBS at a time,
# and adds their results one by one. More jobs than processors pay off where
# tests mostly wait.
testPreset()
{
    local results=$PWD/build/$1/results.xml
    rm -f "$results"
    # Its status is in the results; what it prints is for people at a terminal.
    ctest --preset "$1" --parallel "$2" --output-junit "$results" \
        >"build/$1/ctest.log" 2>&1
    addResults scripts/lanes/readResults.py "$results"
}

# finish: the closing line; the lane's result.
finish()
{
    printf '%d passed, %d failed, %d skipped\n' \
        "$TOLV_PASSED" "$TOLV_FAILED" "$TOLV_SKIPPED"
    [ "$TOLV_FAILED" -eq 0 ]
    exit
}

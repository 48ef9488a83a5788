# shellcheck shell=bash
# For the lanes: counts checks and closes with the line that scripts/test adds
# up. A lane is started in the top folder, sources this file, makes its checks
# and ends with `finish`.

set -u
TOLV_PASSED=0
TOLV_FAILED=0
TOLV_SKIPPED=0

# check NAME COMMAND [ARGUMENT ...]: passes when the command succeeds; shows
# what it printed only when it does not.
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
    fi
}

# skip NAME REASON: says loudly what could not run; never counts as passed.
skip()
{
    printf 'SKIPPED %s: %s\n' "$1" "$2"
    TOLV_SKIPPED=$((TOLV_SKIPPED + 1))
}

# finish: the closing line; the lane's result.
finish()
{
    printf '%d passed, %d failed, %d skipped\n' \
        "$TOLV_PASSED" "$TOLV_FAILED" "$TOLV_SKIPPED"
    [ "$TOLV_FAILED" -eq 0 ]
    exit
}

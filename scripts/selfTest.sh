# shellcheck shell=bash
# For the lanes: shows that a check can fail. Source it, then for each checker
# make a bad sample and `check "... is refused" refuses TEXT COMMAND ...`.

# refuses TEXT COMMAND [ARGUMENT ...]: succeeds when the command fails and what
# it prints contains TEXT, so that it failed for the right reason.
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

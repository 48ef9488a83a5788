#!/usr/bin/env bash
# check-quirks.sh [FOLDER]: every comment in src that begins with "Deliberate:"
# says its "Effect:" and names the tests that pin it after "Pinned by:". These
# tests exist, and docs/quirks.md lists them and no others.
set -eu -o pipefail
cd "${1:-$(dirname "$0")/..}"

status=0
names='[A-Za-z0-9_]+\.[A-Za-z0-9_]+'

# The comment blocks of a source that begin with the tag, each on one line
# behind its place; a block ends with the first line that is no comment.
quirks()
{
    # shellcheck disable=SC2016 # awk expands these
    find src -name '*.[ch]pp' -print0 | sort -z | xargs -0 awk '
        FNR == 1 || !/^ *\/\// { if (block != "") print block; block = "" }
        /^ *\/\// {
            text = $0
            sub(/^ *\/\/\/? ?/, "", text)
            if (text ~ /^Deliberate:/)
            {
                if (block != "") print block
                block = FILENAME ":" FNR ": " text
            }
            else if (block != "") block = block " " text
        }
        END { if (block != "") print block }'
}

# The tests in the tree, as SUITE.NAME.
tests()
{
    find tests -name '*.cpp' -print0 | xargs -0 cat | tr -s '\n ' ' ' |
        grep -oE '\bTEST(_F|_P)?\( ?[A-Za-z0-9_]+, ?[A-Za-z0-9_]+ ?\)' |
        sed -E 's/.*\( ?([A-Za-z0-9_]+), ?([A-Za-z0-9_]+) ?\)/\1.\2/'
}

# fault PLACE WHAT
fault()
{
    echo "$1: $2"
    status=1
}

listed=$({ grep -oE "\`$names\`" docs/quirks.md || true; } |
    tr -d '`' | sort -u)
existing=$(tests | sort -u || true)
pinned=
while IFS= read -r quirk
do
    place=${quirk%%: *}
    [[ $quirk == *' Effect: '* ]] || fault "$place" 'no "Effect:"'
    pins=$(sed -nE 's/.* Pinned by: //p' <<< "$quirk" | grep -oE "$names" || true)
    [ -n "$pins" ] || fault "$place" 'no "Pinned by: Suite.Name"'
    for pin in $pins
    do
        grep -qxF "$pin" <<< "$existing" || fault "$place" "no test $pin"
        grep -qxF "$pin" <<< "$listed" ||
            fault "$place" "docs/quirks.md does not list $pin"
        pinned+=$pin$'\n'
    done
done < <(quirks)

[ -n "$pinned" ] || fault src 'not one comment begins with "Deliberate:"'
for pin in $listed
do
    grep -qxF "$pin" <<< "$pinned" ||
        fault docs/quirks.md "$pin pins nothing in src"
done
exit $status

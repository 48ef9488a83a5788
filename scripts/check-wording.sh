#!/usr/bin/env bash
# check-wording.sh [FOLDER]: files and commit messages speak about this system
# in its own words. They name no document it was built from and none of its
# numbered sections, no numbered tickets, no folders of the machine they were
# written on and no host that the machine takes its packages from.
set -eu -o pipefail
cd "${1:-$(dirname "$0")/..}"

# A bracket around a letter keeps this file from matching itself.
documents='\b[s]pecification\b|\bthe [s]pec\b|\b[s]pec\.md\b|\b[P]arts? [0-9]+\.[0-9]'
tickets='\b[i]ssue #?[0-9]+\b|\b[t]icket #?[0-9]+\b'
folders='(^|[^[:alnum:]_.$})/-])/([w]ork|[h]ome|[r]oot|[t]mp/wt)/'
code_only='\b[s]pec(ification)?\b|\b[P]arts? [0-9]'

# The machine's package hosts, as an expression; empty when there are none. A
# host without a domain has a name like any word, and may be one.
packageHosts()
{
    {
        grep -rhoE 'https?://[^/ ]+' /etc/apt/sources.list \
            /etc/apt/sources.list.d /etc/pip.conf ~/.config/pip ~/.npmrc \
            2> /dev/null || true
    } | sed -E 's#https?://([^@]*@)?##; /\.[[:alpha:]]/!d; s#\.#\\.#g
            s#.*#\\b&\\b#' | sort -u | paste -sd '|'
}

hosts=$(packageHosts)
words="$documents|$tickets|$folders${hosts:+|$hosts}"
status=0

# report WHERE COMMAND [ARGUMENT ...]: the command searches; what it finds is a
# fault, and so is that it cannot search.
report()
{
    local lines found=0
    lines=$("${@:2}") || found=$?
    if [ "$found" -eq 0 ]
    then
        printf 'Wording to mend in %s:\n%s\n' "$1" "$lines"
        status=1
    elif [ "$found" -ne 1 ]
    then
        printf 'Cannot search %s\n' "$1"
        status=1
    fi
}

names=$(git ls-files --cached --others --exclude-standard)
messages=$(git log --format='%h %s%n%b')
if [ -z "$names" ]
then
    echo 'git lists no file to search'
    exit 1
fi
report 'files' git grep --untracked -nIiE "$words"
report 'code' git grep --untracked -nIiE "$code_only" -- \
    src tests bench examples
report 'file names' grep -iE "$words|$code_only" <<< "$names"
report 'commit messages' grep -niE "$words" <<< "$messages"
exit $status

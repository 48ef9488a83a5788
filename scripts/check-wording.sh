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

# The machine's package hosts, as an expression; empty when there are none.
packageHosts()
{
    {
        grep -rhoE 'https?://[^/ ]+' /etc/apt/sources.list \
            /etc/apt/sources.list.d /etc/pip.conf ~/.config/pip ~/.npmrc \
            2> /dev/null || true
    } | sed -E 's#https?://([^@]*@)?##; s#\.#\\.#g' | sort -u | paste -sd '|'
}

hosts=$(packageHosts)
words="$documents|$tickets|$folders${hosts:+|$hosts}"
status=0

# report WHERE LINES
report()
{
    if [ -n "$2" ]
    then
        printf 'Wording to mend in %s:\n%s\n' "$1" "$2"
        status=1
    fi
}

report 'files' \
    "$(git grep --untracked -nIiE "$words" || true)"
report 'code' \
    "$(git grep --untracked -nIiE "$code_only" -- src tests bench examples ||
        true)"
report 'file names' \
    "$(git ls-files --cached --others --exclude-standard |
        grep -iE "$words|$code_only" || true)"
report 'commit messages' \
    "$(git log --format='%h %s%n%b' 2> /dev/null | grep -niE "$words" || true)"
exit $status

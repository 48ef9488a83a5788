# shellcheck shell=bash
# For scripts that fetch something from Debian's archive: packages to install
# and packages or sources to unpack. Every signature check of apt stays on.

# Quiet where all is well, patient with a mirror that fails once and with
# another program that holds the package database.
APT_GET=(apt-get -qq -o Dpkg::Use-Pty=0 -o Acquire::Retries=3
    -o DPkg::Lock::Timeout=300)

# For what is fetched into a folder of the caller's, where the user that apt
# downloads as otherwise may not write.
AS_CALLER=(-o APT::Sandbox::User=root)

# asRoot COMMAND [ARGUMENT ...]: as root, or through sudo, which asks for a
# password only where somebody can see the question.
asRoot()
{
    if [ "$(id -u)" -eq 0 ]
    then
        "$@"
    elif ! command -v sudo >/dev/null
    then
        echo "needs root, and there is no sudo: $*" >&2
        return 1
    elif [ -t 2 ] && [ -z "${CI:-}" ]
    then
        sudo "$@"
    else
        sudo -n "$@"
    fi
}

# updatePackageLists: what the mirrors offer today.
updatePackageLists()
{
    asRoot "${APT_GET[@]}" update
}

# fetchPackage NAME: NAME's .deb into the current folder, not installed. Lists
# that are missing or older than the mirror are brought up to date first.
fetchPackage()
{
    "${APT_GET[@]}" "${AS_CALLER[@]}" download "$1" 2>/dev/null && return
    updatePackageLists || true # a source out of reach may not be the one
    "${APT_GET[@]}" "${AS_CALLER[@]}" download "$1"
}

# sourceEntries: a deb-src line for each of Debian's own archives from which
# the machine takes its packages; other archives have no sources for us.
sourceEntries()
{
    # shellcheck disable=SC2016 # apt expands these, not the shell.
    apt-get indextargets 'Created-By: Packages' 'Origin: Debian' \
        'Trusted: yes' --format \
        'deb-src $(REPO_URI) $(RELEASE) $(COMPONENT)' | sort -u
}

# fetchSource NAME: the files of source package NAME into the current folder.
# Few machines list sources, so apt gets a configuration of its own below the
# current folder, made from the machine's; the machine's is not touched.
fetchSource()
{
    local apt=$PWD/apt
    mkdir -p "$apt/lists/partial" "$apt/cache" "$apt/parts" &&
        sourceEntries >"$apt/sources.list" || return 1
    if [ ! -s "$apt/sources.list" ]
    then
        updatePackageLists && sourceEntries >"$apt/sources.list" || return 1
    fi
    local apt_get=("${APT_GET[@]}" "${AS_CALLER[@]}"
        -o "Dir::Etc::sourcelist=$apt/sources.list"
        -o "Dir::Etc::sourceparts=$apt/parts"
        -o "Dir::State::lists=$apt/lists" -o "Dir::Cache=$apt/cache")
    "${apt_get[@]}" update &&
        "${apt_get[@]}" source --download-only "$1"
}

# shellcheck shell=bash
# Sourced: fetches packages of any Debian release and architecture without installing them.
#
# They come from the package source that the machine itself uses. apt-get works here on indexes of
# its own under build/apt: no root is needed, and the machine's lists stay as they are.

debs_state=$(realpath -m "${BASH_SOURCE[0]%/*}/../build/apt")

# apt on the state in FOLDER: ownApt FOLDER TOOL ARGUMENT...
ownApt() {
    local state=$1 tool=$2
    shift 2
    mkdir -p "$state/lists/partial" "$state/cache/archives/partial"
    touch "$state/status"
    LC_ALL=C "$tool" -q -o Dir::State="$state" -o Dir::State::status="$state/status" \
        -o Dir::Cache="$state/cache" -o APT::Sandbox::User="$(id -un)" -o Acquire::Languages=none "$@"
}

# debSource: prints the URI of the Debian archive in /etc/apt.
debSource() {
    # shellcheck disable=SC2016 # apt's own variables
    local query=(apt-get indextargets --format '$(REPO_URI)'
        'Created-By: Packages' 'Origin: Debian' 'Label: Debian') uri
    uri=$("${query[@]}" | head -n 1)
    if [ -z "$uri" ]; then
        # The machine's lists may have been cleaned away, and with them the sources' names.
        ownApt "$debs_state/machine" apt-get update >/dev/null 2>&1 || true
        uri=$(ownApt "$debs_state/machine" "${query[@]}" | head -n 1)
    fi
    if [ -z "$uri" ]; then
        echo "no source of Debian packages in /etc/apt answers" >&2
        return 1
    fi
    echo "$uri"
}

# debApt RELEASE ARCHITECTURE TOOL ARGUMENT...: apt-get or apt-cache on that release's index.
debApt() {
    local release=$1 architecture=$2 tool=$3
    local state=$debs_state/$release-$architecture
    shift 3
    ownApt "$state" "$tool" -o APT::Architecture="$architecture" \
        -o APT::Architectures::="$architecture" -o Dir::Etc::sourcelist="$state/sources.list" \
        -o Dir::Etc::sourceparts=/dev/null "$@"
}

# debUpdate RELEASE ARCHITECTURE: fetches the index.
debUpdate() {
    local state=$debs_state/$1-$2 uri output
    uri=$(debSource) || return
    mkdir -p "$state"
    echo "deb $uri $1 main" >"$state/sources.list"
    if ! output=$(debApt "$1" "$2" apt-get update -o APT::Update::Error-Mode=any 2>&1); then
        echo "$output" >&2
        echo "cannot fetch the index of Debian $1 for $2 from $uri" >&2
        return 1
    fi
}

# debDepends RELEASE ARCHITECTURE PACKAGE PATTERN: prints those of the packages that PACKAGE
# depends on whose names start as PATTERN says.
debDepends() {
    debApt "$1" "$2" apt-cache depends "$3" | sed -n "s/^ *Depends: \\($4.*\\)/\\1/p"
}

# debFetch FOLDER RELEASE ARCHITECTURE PACKAGE...: the .deb files of the packages lie in FOLDER
# afterwards.
debFetch() {
    local folder=$1 release=$2 architecture=$3 output
    shift 3
    mkdir -p "$folder"
    # An index of an earlier day may name versions that the source has replaced since.
    (cd "$folder" && debApt "$release" "$architecture" apt-get download "$@" >/dev/null 2>&1) &&
        return
    debUpdate "$release" "$architecture" || return
    if ! output=$(cd "$folder" && debApt "$release" "$architecture" apt-get download "$@" 2>&1); then
        echo "$output" >&2
        echo "cannot fetch from Debian $release for $architecture: $*" >&2
        return 1
    fi
}

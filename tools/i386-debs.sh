# shellcheck shell=bash
# Sourced: fetches Debian packages of the i386 architecture without installing them.
#
# apt-get works here on indexes of its own under build/, for i386 alone: no root needed, the
# machine keeps its list of architectures, and an i386 index that lags behind harms nothing else.

i386_apt_state=${BASH_SOURCE[0]%/*}/../build/i386-apt

i386Apt() {
    local tool=$1
    shift
    local state
    state=$(realpath -m "$i386_apt_state")
    mkdir -p "$state/lists/partial" "$state/cache/archives/partial"
    touch "$state/status"
    "$tool" -q -o APT::Architecture=i386 -o APT::Architectures::=i386 \
        -o Dir::State="$state" -o Dir::State::status="$state/status" -o Dir::Cache="$state/cache" \
        -o APT::Sandbox::User="$(id -un)" "$@"
}

# i386Candidate PACKAGE: true if the indexes at hand know PACKAGE.
i386Candidate() {
    i386Apt apt-cache show "$1" >/dev/null 2>&1
}

# i386UpdateIndexes PACKAGE: fetches the indexes unless they know PACKAGE already. One of several
# indexes may fail (security updates for i386 lag behind), so only the outcome counts.
i386UpdateIndexes() {
    i386Candidate "$1" && return
    i386Apt apt-get update >/dev/null 2>&1 || true
    if ! i386Candidate "$1"; then
        echo "no Debian package source offers $1 for i386; see /etc/apt/sources.list" >&2
        return 1
    fi
}

i386Download() {
    local package=$1 folder=$2
    # Whole files only: a download that is interrupted stays in the folder of its own.
    mkdir -p "$folder/partial"
    (cd "$folder/partial" && i386Apt apt-get download "$package" >/dev/null 2>&1) &&
        mv "$folder/partial/${package}"_*.deb "$folder/"
}

# i386Fetch FOLDER PACKAGE...: the .deb files of the packages lie in FOLDER afterwards.
i386Fetch() {
    local folder=$1 package
    shift
    for package; do
        compgen -G "$folder/${package}_*.deb" >/dev/null && continue
        i386UpdateIndexes "$package" || return
        i386Download "$package" "$folder" && continue
        # Indexes of an earlier day may name a version that the source has replaced since.
        i386Apt apt-get update >/dev/null 2>&1 || true
        if ! i386Download "$package" "$folder"; then
            echo "cannot fetch $package for i386 from the Debian package source" >&2
            return 1
        fi
    done
}

# shellcheck shell=bash
# Sourced first by the tree's scripts: how they tell their use, fail, wait and are interrupted.
set -eu
self=$(realpath "$0")
root=$(realpath "${BASH_SOURCE[0]%/*}/..")

# usage STATUS: ends with it, after printing the comment at the script's head.
usage() {
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$self" >&$(($1 > 0 ? 2 : 1))
    exit "$1"
}

# fail TEXT
fail() {
    echo "${self#"$root"/}: $*" >&2
    exit 2
}

# What the script does at the moment, and the process of it that `launch` began.
step=
started=

# launch COMMAND...: in the background, so that a signal to this script ends it at once, and in a
# process group of its own with all that it starts.
launch() {
    set -m
    "$@" &
    set +m
    started=$!
}

# finish: waits for what was started; its status.
finish() {
    local status=0
    wait "$started" || status=$?
    started=
    return "$status"
}

# shellcheck disable=SC2317 # called by traps
interrupted() {
    trap '' HUP INT TERM
    if [ -n "$started" ]; then
        kill -- "-$started" 2>/dev/null || kill "$started" || true
        wait "$started" || true
    fi
    echo "interrupted: ${step:-${self##*/}}" >&2
    exit "$1"
}
trap 'interrupted 129' HUP
trap 'interrupted 130' INT
trap 'interrupted 143' TERM

# waitForLock DESCRIPTOR: until no other command holds it.
waitForLock() {
    if ! flock -n "$1"; then
        echo "==> waiting for another command that builds here" >&2
        flock "$1"
    fi
}

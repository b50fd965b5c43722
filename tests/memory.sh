#!/bin/bash
# memory.sh PROGRAM: a released daemon, on libftdi 0.20, under the package's limit of memory, and files
# on both sides of what fits. One that does not leaves the outputs as they are, at the start and later.
set -eu
if [ "${2:-}" != inside ]; then
    [ -x "$1" ] || { echo "memory.sh: skipped, there is no $1: packaging/build" >&2 && exit 77; }
    # A /opt and a /run of its own.
    unshare --mount --map-root-user true || exit 77
    exec unshare --mount --map-root-user "$0" "$(realpath "$1")" inside
fi
work=$(mktemp -d)
daemon=
trap 'kill -KILL $daemon 2>/dev/null || true; rm -r "$work"' EXIT
cc -w -shared -fPIC -o "$work/unit.so" "$(dirname "$0")/memory.c"
cp "$1" "$work/pinwatchd"
for folder in /opt /run /var/opt; do mount -t tmpfs none $folder; done
mkdir -p /opt/orvel/etc /run/orvel
printf '[common]\nData = /run/orvel\n[cu/params/3]\nLogDebug = 3\n' >/opt/orvel/etc/orvel.conf

# publish SECTIONS KEY: a file of a time of its own.
time=$(date +%s)
publish() {
    { seq "$1" | sed 's/.*/[&]\na=/' && echo "$2=1"; } >/run/new
    touch -d "@$((++time))" /run/new
    : >"$work/log"
    mv /run/new /run/orvel/alarms
}

# isRead: the daemon has looked at the file, and goes on.
isRead() {
    for ((wait = 0; wait < 1200; ++wait)); do
        [ "$(grep -c 'wait for vid=0000' "$work/log")" -lt 2 ] || return 0
        kill -0 "$daemon" || break
        sleep 0.05
    done
    echo "memory.sh: ended, or hangs, with $sections sections" >&2
    exit 1
}

for sections in {112000..152000..4000}; do
    publish "$sections" ALARM1
    LD_PRELOAD=$work/unit.so prlimit --data=33554432 "$work/pinwatchd" 2>>"$work/log" &
    daemon=$!
    isRead
    publish 1 ALARM2
    isRead
    grep -q 'using bitmask 0x32' "$work/log"
    publish "$sections" ALARM1
    isRead
    kill -KILL $daemon
    wait $daemon 2>/dev/null || true
done

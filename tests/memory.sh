#!/bin/bash
# memory.sh PROGRAM: a released daemon, on libftdi 0.20, under the package's limit of memory, and files
# on both sides of what fits. One that does not leaves the outputs as they are, at the start and later.
set -eu
if [ "${2:-}" != inside ]; then
    [ -x "$1" ] || { echo "memory.sh: skipped, there is no $1: packaging/build" >&2 && exit 77; }
    # A /opt and a /run of its own; without root those of a user namespace.
    namespaces=(--mount)
    [ "$(id -u)" -eq 0 ] || namespaces+=(--map-root-user)
    unshare "${namespaces[@]}" true || exit 77
    exec unshare "${namespaces[@]}" "$0" "$(realpath "$1")" inside
fi
work=$(mktemp -d)
daemon=
trap 'kill -KILL $daemon 2>/dev/null || true; rm -r "$work"' EXIT
cc -w -shared -fPIC -o "$work/unit.so" "$(dirname "$0")/memory.c"
cp "$1" "$work/pinwatchd"
for folder in /opt /run /var/opt; do mount -t tmpfs none $folder; done
mkdir -p /opt/orvel/etc /run/orvel
printf '[common]\nData = /run/orvel\n[cu/params/3]\nLogDebug = 3\n' >/opt/orvel/etc/orvel.conf

fail() {
    echo "memory.sh: $*" >&2
    exit 1
}

# alarms SECTIONS KEY: makes the file, of a time of its own.
time=$(date +%s)
alarms() {
    seq "$1" | sed 's/.*/[&]\na=/' >/run/new
    echo "$2=1" >>/run/new
    touch -d "@$((++time))" /run/new
    mv /run/new /run/orvel/alarms
}

# logs TEXT: waits for two more lines with it.
logs() {
    local end=$((SECONDS + 60)) count
    count=$(grep -c "$1" "$work/log" || true)
    until [ "$(grep -c "$1" "$work/log")" -ge $((count + 2)) ]; do
        kill -0 "$daemon" 2>/dev/null || fail "ended with $sections sections"
        [ $SECONDS -lt $end ] || fail "no '$1' with $sections sections"
        sleep 0.05
    done
}

# start and stop one under the limit.
start() {
    : >"$work/log"
    LD_PRELOAD=$work/unit.so prlimit --data=33554432 "$work/pinwatchd" 2>"$work/log" &
    daemon=$!
    logs 'wait for vid=0000'
}
stop() {
    kill -KILL $daemon
    wait $daemon 2>/dev/null || true
}

for sections in 1 {120000..160000..10000}; do
    alarms "$sections" ALARM1
    start
    stop
done
alarms 1 ALARM1
start
for sections in {112000..132000..4000} 1; do
    alarms "$sections" ALARM2
    logs 'wait for vid=0000'
done
grep -q 'using bitmask 0x32' "$work/log" || fail "the alarm after all that is not shown"
stop

#!/bin/bash
# pinwatchd-prepare in a /tmp where another user was first: it moves, follows and replaces nothing of
# theirs, and says so in one line. Needs root, for a second user; the mounts are its own.
set -eu
[ "${1:-}" != --help ] || exec echo "usage: tests/packages/prepare.sh"
if [ "$(id -u)" -ne 0 ] || ! unshare --mount true; then
    echo "prepare.sh: skipped, needs root and mounts of its own" >&2
    exit 77
fi
[ "${1:-}" = inside ] || exec unshare --mount "$0" inside
prepare=$(realpath "$(dirname "$0")/../../packaging/pinwatchd-prepare")
work=$(mktemp -d /var/tmp/pinwatchd.XXXXXX)
trap 'rm -rf "$work"' EXIT
install "$prepare" "$work/prepare"
chmod 755 "$work"
for folder in /run /opt /var/opt; do mount -t tmpfs none $folder; done
mkdir -p /opt/orvel/etc /var/opt/orvel/etc
settings=/opt/orvel/etc/orvel.conf

fail() {
    echo "prepare.sh: $*" >&2
    exit 1
}

list() {
    ls -a /
    find /tmp /run/target -printf '%p %y %u %m %i %l\n' | sort
}

# starts SETTINGS STATUS LINES COMMAND: what it does where nobody has run COMMAND in a new /tmp.
starts() {
    local status=0
    echo "[common]
$1" >$settings
    rm -rf /run/target /run/orvel
    mkdir /run/target
    mount -t tmpfs -o mode=1777,nr_inodes=20 none /tmp
    setpriv --reuid=nobody --regid=nogroup --clear-groups sh -c "cd /tmp && $4"
    list >"$work/before"
    timeout 60 "$work/prepare" 2>"$work/said" || status=$?
    list >"$work/after"
    umount /tmp
    if [ $status -ne "$2" ] || [ "$(wc -l <"$work/said")" -ne "$3" ] || [ ! -d /run/orvel ]; then
        fail "with '$4': status $status, $(cat "$work/said")"
    fi
    [ "$status" -eq 0 ] || diff "$work/before" "$work/after" || fail "changed what '$4' had made"
}

# shellcheck disable=SC2016 # for the inner shell
fill='i=0; while mkdir fill$i 2>/dev/null; do i=$((i+1)); done'
for setting in '' 'Data = /tmp/orvel/data' 'OldPath = /tmp/orvel/data'; do
    starts "$setting" 0 0 true
    starts "$setting" 1 1 "ln -s /run/target orvel; $fill"
    starts "$setting" 1 1 "echo id >orvel; $fill"
    starts "$setting" 1 1 "$fill"
    starts "$setting" 1 1 'mkdir orvel; mkfifo orvel/data'
    starts "$setting" 1 1 'mkdir orvel; ln -s /run/orvel orvel/data'
done
starts 'Data = /run/orvel' 0 0 'mkdir orvel'
grep -q 'orvel d nobody' "$work/after" || fail "touched what no setting names"

# A racer never gets root to follow or to move, whoever wins.
echo 'OldPath = /tmp/orvel/data' >$settings
mount -t tmpfs -o mode=1777 none /tmp
setpriv --reuid=nobody --regid=nogroup --clear-groups sh -c 'while sleep 0; do
    ln -s /run/target /tmp/orvel; rm /tmp/orvel; mkdir /tmp/orvel; rmdir /tmp/orvel; done' 2>/dev/null &
racer=$!
for _ in {1..200}; do
    "$work/prepare" 2>/dev/null || true
    [ "$(stat -c %U /tmp/orvel 2>/dev/null)" != root ] || [ "$(readlink /tmp/orvel/data)" = /run/orvel ] ||
        fail "made something else"
    [ -z "$(ls -A /run/target)" ] || fail "followed a link"
    [ "$(stat -c %U /tmp/orvel 2>/dev/null)" != root ] || rm -r /tmp/orvel
done
kill $racer
wait $racer || true
rm -rf /tmp/orvel

# What a group may change stays, with the alarms of the version before.
mkdir -m 755 /tmp/orvel
mkdir -m 770 /tmp/orvel/data
touch /tmp/orvel/data/alarms
! "$work/prepare" 2>/dev/null || fail "the old directory is replaced"
[ -f /tmp/orvel/data/alarms ] || fail "lost the alarms"

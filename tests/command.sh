#!/bin/bash
# command.sh PROGRAM: pinwatchd-alarm as users call it, what it leaves of the file, and who else
# may be at the file meanwhile.
set -eu
program=$(realpath "$1")
completion=$(realpath "$(dirname "$0")/../command/pinwatchd-alarm.bash")
folder=$(mktemp -d)
trap 'chmod -R u+rwx "$folder"; rm -rf "$folder"' EXIT
chmod 755 "$folder"
cd "$folder"
file=alarms

fail() {
    echo "command.sh: $*" >&2
    exit 1
}

# expect STATUS OUTPUT ARGUMENT...: the status, and all that is printed, as patterns.
# shellcheck disable=SC2053 # they are patterns
expect() {
    local status=0 output expected=$1 text=$2
    shift 2
    output=$("${as[@]}" "$program" --file "$file" "$@" 2>&1) || status=$?
    [[ $status = $expected ]] || fail "$*: status $status, not $expected: $output"
    [[ $output = $text ]] || fail "$*: printed '$output', not '$text'"
    [ ! -e "$file.pinwatchd-alarm" ] || fail "$*: a temporary file is left"
}

# holds TEXT: so does the file, as a version of its own if it is another text than before.
version=0
before=none
holds() {
    local text time
    text=$(cat alarms && echo .)
    text=${text%.}
    text=${text%$'\n'}
    time=$(stat -c %Y alarms)
    [ "$text" = "$1" ] || fail "the file holds '$text', not '$1'"
    [ "$text" = "$before" ] || [ "$time" -gt "$version" ] || fail "'$text' has no later time"
    [ "$text" != "$before" ] || [ "$time" -eq "$version" ] || fail "touched without need"
    version=$time
    before=$text
}

as=()
expect 0 'CBUS0 high  CBUS1 high  no alarm*does not exist*' show
expect 0 '' clear backup
holds ''
echo left >alarms.pinwatchd-alarm # by one that was killed
expect 0 '' raise backup alarm1 exit 23
holds $'[backup]\nALARM1 = exit 23'
expect 0 '' raise BACKUP
expect 0 '' raise --wait backup ALARM1 'exit 23'
holds "$before"
expect 1 $'[[]backup]\n    ALARM1 exit 23\nCBUS0 high  CBUS1 low  ALARM1\n*since*' show
expect 0 '' raise backup -1
expect 0 '' raise -- backup --help
holds $'[backup]\nALARM1 = --help'
expect 0 '' raise backup -1
expect 0 '' raise boiler ALARM2 $'too \t hot\xc2\x9b'
holds $'[backup]\nALARM1 = -1\n[boiler]\nALARM2 = too \t hot\xc2\x9b'
expect 2 $'*ALARM2 too ? hot[?]\nCBUS0 low  CBUS1 high  ALARM2*' show
expect 0 '' clear boiler ALARM1
holds "$before"
expect 0 '' clear backup
expect 0 '' clear --all
holds ''
for arguments in '' 'lower x' --none raise clear 'clear a ALARM3' 'clear --all a' 'show a' \
    'raise --all a' 'raise a --wait' 'raise a ALARM2 b --help' 'raise a --fi=b' 'clear a --all'; do
    # shellcheck disable=SC2086 # several arguments
    expect 64 'pinwatchd-alarm: *' $arguments
done
expect 65 'pinwatchd-alarm: no section can be named *' raise 'a]'
expect 65 'pinwatchd-alarm: no alarm can have the text *' raise a $'b\nc'
holds ''

[ "$("$program" --file alarms show 2>&1 >/dev/full)" = \
    "pinwatchd-alarm: standard output: No space left on device" ] || fail "a full disk is not told of"

# completes REPLIES WORD...: what the last word is completed to; bash divides at ":" and "=".
completes() {
    COMP_WORDS=(pinwatchd-alarm "${@:2}") COMP_CWORD=$(($# - 1)) COMPREPLY=()
    PATH=$(dirname "$program"):$PATH _pinwatchd_alarm
    [ "${COMPREPLY[*]}" = "$1" ] || fail "${*:2} is completed to '${COMPREPLY[*]}', not '$1'"
}
# shellcheck source=packaging/pinwatchd-alarm.bash
. "$completion"
expect 0 '' raise 'back up'
expect 0 '' raise a:b
completes 'raise clear show' ''
completes '--wait' --file alarms raise --w
completes 'a:b back\ up' --file alarms clear ''
completes 'back\ up' --file = alarms clear 'back\ '
completes '"back up' --file alarms clear '"b'
completes 'b' --file alarms raise a :
completes 'ALARM1 ALARM2' raise a : b a
expect 0 '' clear --all

# What is no file of text stays as it is.
ln -s alarms link
mkfifo fifo
printf 'ALARM1=\0' >nul
for file in "$PWD" fifo link none/alarms nul ''; do
    expect '6[56]' 'pinwatchd-alarm: *' raise a
done
expect 66 'pinwatchd-alarm: *' show
head -c 1048570 /dev/zero | tr '\0' ';' >large
file=large
expect 74 'pinwatchd-alarm: large: File too large' raise a
file=alarms

# Root replaces the file, and owner, mode and access list stay (here: user 12345 may write).
if [ "$(id -u)" -eq 0 ]; then
    list=AgAAAAEABgD/////AgAGADkwAAAEAAQA/////xAABgD/////IAAAAP////8=
    chown nobody alarms
    python3 -c 'import base64, os, sys
os.setxattr("alarms", "system.posix_acl_access", base64.b64decode(sys.argv[1]))' "$list"
    before_replacing=$(stat -c '%U:%G %a' alarms)
    expect 0 '' raise a
    [ "$(stat -c '%U:%G %a' alarms)" = "$before_replacing" ] || fail "another owner or mode"
    [ "$(python3 -c 'import base64, os
print(base64.b64encode(os.getxattr("alarms", "system.posix_acl_access")).decode())')" = "$list" ] ||
        fail "another access list"
    rm alarms
    as=(setpriv --reuid=nobody --regid=nogroup --clear-groups)
fi

# Who may write the file, but not its directory, writes it in place.
printf '[other]\nALARM2 = stays\n\n\n' >alarms
[ ${#as[@]} -eq 0 ] || chown nobody alarms
chmod 555 .
inode=$(stat -c %i alarms)
version=0
expect 0 '' raise a ALARM1 long text
holds $'[other]\nALARM2 = stays\n[a]\nALARM1 = long text'
expect 77 '*4096 bytes*' raise a ALARM1 "$(printf '%4100s' x)"
expect 0 '' raise a ALARM1 short
holds $'[other]\nALARM2 = stays\n[a]\nALARM1 = short'
expect 0 '' clear a
holds $'[other]\nALARM2 = stays'
[ "$(stat -c %i alarms)" = "$inode" ] || fail "was replaced"
chmod 444 alarms
expect 77 'pinwatchd-alarm: alarms: Permission denied' raise a
holds "$before"
chmod 644 alarms
chmod 600 .
expect 77 'pinwatchd-alarm: alarms: Permission denied' show
chmod 555 .
# In place nobody may read meanwhile; replaced, nobody else may write meanwhile. What it says when
# it gives up does not land in the file, though standard error is closed.
isHeldUp() {
    local status=0
    # shellcheck disable=SC2016 # for the inner shell
    flock "$1" alarms timeout -s ALRM 1 bash -c 'exec "$@" <&- >&- 2>&-' - \
        "${as[@]}" "$program" --file alarms raise a || status=$?
    [ "$status" -eq 124 ] || fail "does not wait for a lock: flock $1"
}
isHeldUp -s
chmod 755 .
as=()
isHeldUp -x
(
    ulimit -f 0
    expect 74 'pinwatchd-alarm: alarms: File too large' raise a
)
holds "$before"
flock -s alarms "$program" --file alarms raise a

# On a full disk a small change still fits into the file's last block, a large one leaves the file.
fullDisk() {
    mkdir small
    mount -t tmpfs -o size=8k none small
    cd small
    printf '[other]\nALARM2 = stays\n' >alarms
    head -c 4096 /dev/zero >filler
    expect 0 '' raise disk ALARM1 full
    holds $'[other]\nALARM2 = stays\n[disk]\nALARM1 = full'
    expect 74 'pinwatchd-alarm: alarms: No space left on device*4096 bytes*' \
        raise large ALARM1 "$(printf '%5000s' x)"
    holds "$before"
}
export -f fullDisk expect holds fail
export program file
if unshare --mount --map-root-user true 2>/dev/null; then
    unshare --mount --map-root-user bash -euc 'as=() version=0 before=none && fullDisk'
else
    echo "command.sh: skipped, the full disk: needs user namespaces" >&2
fi

# Many at once, some of them killed: no change is lost, and a reader always finds the whole file.
rm -f alarms
expect 0 '' raise other ALARM2
publisher() {
    local count
    for count in 1 2 3 4 5; do
        "$program" --file alarms raise "source $1" ALARM1 "$count"
        [ $(($1 % 2)) -eq 0 ] || "$program" --file alarms clear "source $1"
    done
}
for number in {1..20}; do
    publisher "$number" &
done
for count in {1..50}; do
    "$program" --file alarms raise killed ALARM1 "$count" &
    read -rt "0.0$((RANDOM % 100 + 100))" <>fifo || true
    kill -KILL $! 2>/dev/null || true
    wait $! 2>/dev/null || true
    [ "$("$program" --file alarms show | grep -c ALARM2)" -eq 2 ] || fail "a reader found less"
done
wait
expect 0 '' clear killed
{
    printf '[other]\nALARM2 = \n'
    printf '[source %s]\nALARM1 = 5\n' {2..20..2}
} >expected
diff <(sort expected) <(sort alarms) || fail "changes were lost"
